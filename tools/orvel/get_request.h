// The request `orvel get` sends, built with the library's request serializers:
// - -d fields through the HTTP serializer: escaped for the caller (as curl's --data-urlencode),
//   into the query for GET, HEAD and DELETE (and any method with -G), else a form body;
// - --json through the JSON serializer (Accept: application/json unless -H says otherwise);
// - -F through the multipart entry point, as a body stream that reads files only while sending;
// - -u as basic authorization, -H fields last so that they win over the serializer's defaults.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "get_options.h"
#include "platform/foundation/value.h"
#include "platform/net/url_request.h"

struct OrvelGetRequest {
  ZRBMutableURLRequestPtr request;
  // The body is the request's body stream (-F): send it with uploadTaskWithStreamedRequest.
  bool streamedBody = false;
};

// Null with `error` set when the URL, the JSON text or a form file is unusable.
std::optional<OrvelGetRequest> orvelBuildGetRequest(const OrvelGetOptions& options, std::string& error);

// -d fields as serializer parameters: "k=v" a string, "k" alone the null object (written as a bare
// name), a repeated key a set (written as the key once per value).
ZRBValue orvelFormParameters(const std::vector<std::string>& fields);

// The method the request is sent with: -X, else GET with -G or without a body, else POST.
std::string orvelRequestMethod(const OrvelGetOptions& options);
