#include "get_request.h"

#include <algorithm>
#include <exception>
#include <filesystem>
#include <utility>

#include "http/multipart_form_data.h"
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

// The request layer's name for `method`; nullopt for a method it does not know.
std::optional<ZRBRQ_RequestMethod> layerMethod(const std::string& method) {
  static const std::map<std::string, ZRBRQ_RequestMethod, std::less<>> kMethods = {
      {"GET", ZRBRQ_RequestMethodGET},       {"POST", ZRBRQ_RequestMethodPOST},
      {"HEAD", ZRBRQ_RequestMethodHEAD},     {"PUT", ZRBRQ_RequestMethodPUT},
      {"DELETE", ZRBRQ_RequestMethodDELETE}, {"PATCH", ZRBRQ_RequestMethodPATCH}};
  auto found = kMethods.find(method);
  if (found == kMethods.end()) return std::nullopt;
  return found->second;
}

}  // namespace

std::shared_ptr<OrvelGetRequest> OrvelGetRequest::make(const OrvelGetOptions& options, std::string& error) {
  auto url = ZRBURL::URLWithString(options.url);
  if (!url || !url->scheme() || !url->host()) {
    error = "'" + options.url + "' is not a URL with a scheme and a host";
    return nullptr;
  }
  if (*url->scheme() != "http" && *url->scheme() != "https") {
    error = "'" + options.url + "': only http and https URLs can be fetched";
    return nullptr;
  }
  auto request = std::make_shared<OrvelGetRequest>();
  request->options_ = options;
  request->method_ = orvelRequestMethod(options);
  if (options.json) {
    ZRBErrorPtr jsonError;
    request->arguments_ = ZRBJSONSerialization::JSONObjectWithData(*options.json, {}, &jsonError);
    if (request->arguments_.isAbsent()) {
      error = "--json: " + (jsonError ? jsonError->userInfo()[ZRBDebugDescriptionErrorKey].description()
                                      : std::string("not JSON"));
      return nullptr;
    }
    request->headers_["Accept"] = "application/json";
  } else if (!options.dataFields.empty()) {
    request->arguments_ = orvelFormParameters(options.dataFields);
  }
  // In order: a later -H for the same name wins, whether it sets or removes the field.
  for (const auto& header : options.headers) {
    if (header.remove) {
      request->headers_.erase(header.name);
      request->removedHeaders_.insert(header.name);
    } else {
      request->headers_[header.name] = header.value;
      request->removedHeaders_.erase(header.name);
    }
  }
  return request;
}

ZRBRQ_RequestMethod OrvelGetRequest::requestMethod() const {
  // Another method goes through the session manager, which sends method_ itself.
  return layerMethod(method_).value_or(ZRBRQ_RequestMethodGET);
}

bool OrvelGetRequest::needsSessionManager() const {
  bool fieldsInQuery = method_ == "GET" || method_ == "HEAD";
  return !options_.formFields.empty() || !layerMethod(method_) || !removedHeaders_.empty() ||
         (options_.forceGet && !fieldsInQuery);
}

std::optional<std::vector<std::string>> OrvelGetRequest::requestAuthorizationHeaderFieldArray() const {
  if (!options_.user) return std::nullopt;
  auto colon = options_.user->find(':');
  return std::vector<std::string>{options_.user->substr(0, colon),
                                  colon == std::string::npos ? "" : options_.user->substr(colon + 1)};
}

ZRBValue OrvelGetRequest::cacheSensitiveData() const {
  std::string fields = options_.user.value_or("");
  for (const auto& [name, value] : headers_) fields += "\n" + name + ": " + value;
  return ZRBValue(fields);
}

bool OrvelGetRequest::statusCodeValidator() const {
  auto http = response();
  return !acceptsStatus_ || !http || acceptsStatus_(*http);
}

ZRBMutableURLRequestPtr OrvelGetRequest::sessionRequest(ZRBRQ_NetworkAgent& agent, std::string& error) {
  auto serializer = agent.requestSerializerForRequest(self());
  if (options_.forceGet) {
    auto methods = serializer->HTTPMethodsEncodingParametersInURI();
    methods.insert(method_);
    serializer->setHTTPMethodsEncodingParametersInURI(std::move(methods));
  }
  ZRBMutableURLRequestPtr request;
  ZRBErrorPtr serializationError;
  try {
    if (!options_.formFields.empty()) {
      if (method_ == "GET" || method_ == "HEAD") {
        error = "-F sends a body, which " + method_ + " cannot carry (use -X POST or leave -X out)";
        return nullptr;
      }
      std::string formError;
      request = serializer->multipartFormRequestWithMethod(
          method_, options_.url, ZRBValue(),
          [&](ZRBHS_StreamingMultipartFormData& formData) {
            appendFormFields(formData, options_, formError);
          },
          &serializationError);
      if (!formError.empty()) {
        error = formError;
        return nullptr;
      }
    } else {
      request = serializer->requestWithMethod(method_, options_.url, arguments_, &serializationError);
    }
  } catch (const std::exception& exception) {
    error = exception.what();
    return nullptr;
  }
  if (!request) {
    error =
        serializationError ? serializationError->localizedDescription() : "the request could not be built";
    return nullptr;
  }
  for (const auto& name : removedHeaders_) {
    request->setValue(std::nullopt, name);
    // Also the transport's own field of that name, as curl's "Name:" does.
    request->setOmitsHTTPHeaderField(name, true);
  }
  return request;
}
