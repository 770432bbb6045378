// The command line of `orvel get`: what a curl user would type, parsed into one plain struct so
// that the request builder, the delegate and the tests all read the same thing.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "commands.h"

struct OrvelGetOptions {
  std::string url;
  std::optional<std::string> outputPath;         // -o: the body goes to this file instead of stdout
  bool includeHead = false;                      // -i: status line and header fields before the body
  bool failOnHTTPError = false;                  // -f: status >= 400 is a failure, the body is dropped
  bool followRedirects = false;                  // -L
  bool resume = false;                           // -C: continue an interrupted -o download
  bool insecure = false;                         // -k: any server certificate is accepted
  bool silent = false;                           // -s: no progress bar (errors are still reported)
  bool forceGet = false;                         // -G: -d fields go into the query
  bool throttle = false;                         // --throttle [N]: slow multipart uploads down
  bool decode = false;                           // --decode: print the body as the serializers decode it
  std::uint64_t throttlePacketSize = 16384;      // N: bytes per packet
  double timeout = 60;                           // --timeout: seconds without progress before giving up
  std::optional<long> cacheSeconds;              // --cache: answers stay in the request cache this long
  std::optional<std::string> caCertificatePath;  // --cacert: PEM anchors replacing the system's
  std::optional<std::string> pinningConfigPath;  // --pinning-config: pin by this configuration
  std::optional<std::string> method;             // -X
  std::optional<std::string> user;               // -u user:password
  std::optional<std::string> json;               // --json: the body, a JSON document
  // -H "Name: value", in order. An empty value with `remove` drops a field the library would add.
  struct Header {
    std::string name;
    std::string value;
    bool remove = false;
  };
  std::vector<Header> headers;
  std::vector<std::string> dataFields;  // -d "k=v", as typed
  std::vector<std::string> formFields;  // -F "name=value" or "name=@file", as typed
  std::vector<std::string> resolve;     // --resolve HOST:PORT:ADDRESS, in order
};

// Parses the arguments after "get". On failure returns nullopt and sets `error` to a one-line
// message (without the program name).
std::optional<OrvelGetOptions> orvelParseGetArguments(OrvelArguments arguments, std::string& error);

// The usage text printed for -h and after a usage error.
const char* orvelGetUsage();
