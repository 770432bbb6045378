// The orvel program's commands. Each takes the arguments after its name and returns the exit
// status; output goes to standard output, diagnostics to standard error.
#pragma once

#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "platform/foundation/value.h"

using OrvelArguments = std::span<const std::string_view>;

// Gives the main bundle the program's name and the library version ("orvel", "1.0.0") where its
// information map has none; the default User-Agent is built from them.
void orvelDescribeMainBundle();

// The whole contents of a file, or of standard input for "-"; nullopt when it cannot be read.
std::optional<std::string> orvelReadFile(std::string_view path);

int orvelVersionCommand(OrvelArguments arguments);
int orvelSettingsCommand(OrvelArguments arguments);
// Public-key pins (base64 SHA-256 of the SubjectPublicKeyInfo) of every certificate in the files.
int orvelPinsCommand(OrvelArguments arguments);
int orvelSuffixCommand(OrvelArguments arguments);  // HOST LENGTH REGISTRABLE per host
// FILE (JSON or property list): the normalised pinning configuration, or the first error in it.
int orvelPinningConfigCommand(OrvelArguments arguments);
// [HOST|ADDRESS] [--watch]: reachability status and flags, once or one line per report.
int orvelReachabilityCommand(OrvelArguments arguments);
// The configuration map in a JSON or property-list file (or an Info.plist's "PGDConfiguration");
// absent, with `problem` set, when the file cannot be read or decoded. Not parsed yet.
ZRBValue orvelReadPinningConfiguration(std::string_view path, std::string& problem);
// Whether the text has curl's --resolve form HOST:PORT:ADDRESS[,ADDRESS...] (the port a number).
bool orvelIsResolveEntry(std::string_view entry);
// HOST[:PORT] --config FILE [--report] [--resolve HOST:PORT:ADDRESS]: validates a server's chain
// against a pinning configuration (see pin_check_command.cpp).
int orvelPinCheckCommand(OrvelArguments arguments);
// [OPTIONS] URL: fetch a URL as curl would (see orvelGetUsage() in get_options.h).
int orvelGetCommand(OrvelArguments arguments);
