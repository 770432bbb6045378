#include "get_request.h"

#include <algorithm>
#include <exception>
#include <filesystem>
#include <utility>

#include "http/json_request_serializer.h"
#include "http/multipart_form_data.h"
#include "http/request_serializer.h"
#include "platform/foundation/json_serialization.h"
#include "platform/foundation/url.h"

ZRBValue orvelFormParameters(const std::vector<std::string>& fields) {
  std::vector<std::pair<std::string, std::vector<ZRBValue>>> byKey;  // first-seen order
  for (const auto& field : fields) {
    auto equals = field.find('=');
    std::string key = field.substr(0, equals);
    ZRBValue value = equals == std::string::npos ? ZRBValue::null() : ZRBValue(field.substr(equals + 1));
    auto existing =
        std::find_if(byKey.begin(), byKey.end(), [&](const auto& entry) { return entry.first == key; });
    if (existing == byKey.end()) {
      byKey.emplace_back(std::move(key), std::vector<ZRBValue>{std::move(value)});
    } else {
      existing->second.push_back(std::move(value));
    }
  }
  ZRBDictionaryBuilder parameters;
  for (auto& [key, values] : byKey) {
    parameters.set(key, values.size() == 1 ? std::move(values.front()) : ZRBValue::set(std::move(values)));
  }
  return parameters.build();
}

std::string orvelRequestMethod(const OrvelGetOptions& options) {
  if (options.method) return *options.method;
  bool hasBody = !options.dataFields.empty() || options.json || !options.formFields.empty();
  return options.forceGet || !hasBody ? "GET" : "POST";
}

namespace {

// Appends the -F fields; the first unusable one ends up in `error`.
void appendFormFields(ZRBHS_StreamingMultipartFormData& formData, const OrvelGetOptions& options,
                      std::string& error) {
  for (const auto& field : options.formFields) {
    auto equals = field.find('=');
    std::string name = field.substr(0, equals);
    std::string value = field.substr(equals + 1);
    if (!value.starts_with("@")) {
      formData.appendPartWithFormData(ZRBValue::data(value), name);
      continue;
    }
    // "name=@path" or "name=@path;type=MIME".
    std::string path = value.substr(1);
    std::optional<std::string> mimeType;
    if (auto type = path.rfind(";type="); type != std::string::npos) {
      mimeType = path.substr(type + 6);
      path.erase(type);
    }
    auto fileURL = ZRBURL::fileURLWithPath(std::filesystem::absolute(path).string());
    ZRBErrorPtr appendError;
    bool appended = mimeType ? formData.appendPartWithFileURL(fileURL, name, fileURL->lastPathComponent(),
                                                              *mimeType, &appendError)
                             : formData.appendPartWithFileURL(fileURL, name, &appendError);
    if (!appended) {
      if (error.empty()) {
        error =
            "-F " + field + ": " +
            (appendError ? appendError->localizedFailureReason().value_or(appendError->localizedDescription())
                         : std::string("cannot be read"));
      }
      return;
    }
  }
  if (options.throttle) {
    formData.throttleBandwidthWithPacketSize(options.throttlePacketSize, ZRBHS_kUploadStream3GSuggestedDelay);
  }
}

}  // namespace

std::optional<OrvelGetRequest> orvelBuildGetRequest(const OrvelGetOptions& options, std::string& error) {
  auto url = ZRBURL::URLWithString(options.url);
  if (!url || !url->scheme() || !url->host()) {
    error = "'" + options.url + "' is not a URL with a scheme and a host";
    return std::nullopt;
  }
  if (*url->scheme() != "http" && *url->scheme() != "https") {
    error = "'" + options.url + "': only http and https URLs can be fetched";
    return std::nullopt;
  }
  std::string method = orvelRequestMethod(options);

  ZRBValue parameters;
  ZRBHS_HTTPRequestSerializerPtr serializer;
  if (options.json) {
    ZRBErrorPtr jsonError;
    parameters = ZRBJSONSerialization::JSONObjectWithData(*options.json, {}, &jsonError);
    if (parameters.isAbsent()) {
      error = "--json: " + (jsonError ? jsonError->userInfo()[ZRBDebugDescriptionErrorKey].description()
                                      : std::string("not JSON"));
      return std::nullopt;
    }
    serializer = ZRBHS_JSONRequestSerializer::serializer();
    serializer->setValueForHTTPHeaderField("application/json", "Accept");
  } else {
    serializer = ZRBHS_HTTPRequestSerializer::serializer();
    if (!options.dataFields.empty()) parameters = orvelFormParameters(options.dataFields);
  }
  if (options.forceGet) {
    auto methods = serializer->HTTPMethodsEncodingParametersInURI();
    methods.insert(method);
    serializer->setHTTPMethodsEncodingParametersInURI(std::move(methods));
  }
  if (options.user) {
    auto colon = options.user->find(':');
    serializer->setAuthorizationHeaderFieldWithUsername(
        options.user->substr(0, colon), colon == std::string::npos ? "" : options.user->substr(colon + 1));
  }

  OrvelGetRequest built;
  ZRBErrorPtr serializationError;
  try {
    if (!options.formFields.empty()) {
      if (method == "GET" || method == "HEAD") {
        error = "-F sends a body, which " + method + " cannot carry (use -X POST or leave -X out)";
        return std::nullopt;
      }
      std::string formError;
      built.request = serializer->multipartFormRequestWithMethod(
          method, options.url, ZRBValue(),
          [&](ZRBHS_StreamingMultipartFormData& formData) { appendFormFields(formData, options, formError); },
          &serializationError);
      if (!formError.empty()) {
        error = formError;
        return std::nullopt;
      }
      built.streamedBody = built.request && built.request->HTTPBodyStream() != nullptr;
    } else {
      built.request = serializer->requestWithMethod(method, options.url, parameters, &serializationError);
    }
  } catch (const std::exception& exception) {
    error = exception.what();
    return std::nullopt;
  }
  if (!built.request) {
    error =
        serializationError ? serializationError->localizedDescription() : "the request could not be built";
    return std::nullopt;
  }

  for (const auto& header : options.headers) {
    built.request->setValue(header.remove ? std::nullopt : std::optional<std::string>(header.value),
                            header.name);
  }
  return built;
}
