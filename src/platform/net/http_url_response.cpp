#include "platform/net/http_url_response.h"

#include <algorithm>
#include <charconv>
#include <vector>

#include "platform/foundation/text_encoding.h"

namespace {

std::string_view trim(std::string_view s) {
  while (!s.empty() && (s.front() == ' ' || s.front() == '\t')) s.remove_prefix(1);
  while (!s.empty() && (s.back() == ' ' || s.back() == '\t' || s.back() == '\r' || s.back() == '\n'))
    s.remove_suffix(1);
  return s;
}

// The shared copy of a common MIME type that `value` names in any case, or null.
const std::optional<std::string>* knownMIMEType(std::string_view value) {
  static const std::optional<std::string> known[] = {
      "application/json", "text/html", "text/plain", "application/octet-stream", "text/json",
      "text/javascript",  "image/png", "image/jpeg", "application/xml",          "text/xml"};
  // The same ASCII case-insensitive comparison as header names.
  for (const auto& type : known) {
    if (ZRBHTTPHeaderNameEquals(value, *type)) return &type;
  }
  return nullptr;
}

std::string lower(std::string_view s) {
  std::string out(s);
  std::transform(out.begin(), out.end(), out.begin(),
                 [](unsigned char c) { return static_cast<char>(c >= 'A' && c <= 'Z' ? c + 32 : c); });
  return out;
}

struct Parameter {
  std::string name;  // lower-cased
  std::string value;
};

// Splits "main; a=1; b=\"x;y\"" into the main value and its parameters; quoted values may hold
// ";" and backslash escapes.
std::pair<std::string, std::vector<Parameter>> splitParameters(std::string_view header) {
  std::size_t i = header.find(';');
  std::string mainValue(trim(header.substr(0, i)));
  std::vector<Parameter> parameters;
  while (i < header.size()) {
    ++i;  // past ';'
    std::size_t nameEnd = header.find_first_of("=;", i);
    if (nameEnd == std::string_view::npos || header[nameEnd] == ';') {
      i = nameEnd;
      continue;
    }
    Parameter p{lower(trim(header.substr(i, nameEnd - i))), {}};
    i = nameEnd + 1;
    while (i < header.size() && (header[i] == ' ' || header[i] == '\t')) ++i;
    if (i < header.size() && header[i] == '"') {
      for (++i; i < header.size() && header[i] != '"'; ++i) {
        if (header[i] == '\\' && i + 1 < header.size()) ++i;
        p.value.push_back(header[i]);
      }
      i = header.find(';', i);
    } else {
      std::size_t end = header.find(';', i);
      p.value = std::string(
          trim(header.substr(i, end == std::string_view::npos ? std::string_view::npos : end - i)));
      i = end;
    }
    parameters.push_back(std::move(p));
  }
  return {std::move(mainValue), std::move(parameters)};
}

// RFC 8187: charset'language'percent-encoded-bytes.
std::optional<std::string> decodeExtendedValue(std::string_view value) {
  auto first = value.find('\'');
  if (first == std::string_view::npos) return std::nullopt;
  auto second = value.find('\'', first + 1);
  if (second == std::string_view::npos) return std::nullopt;
  std::string charset = lower(value.substr(0, first));
  std::string_view encoded = value.substr(second + 1);
  std::vector<std::uint8_t> bytes;
  for (std::size_t i = 0; i < encoded.size(); ++i) {
    if (encoded[i] != '%') {
      bytes.push_back(static_cast<std::uint8_t>(encoded[i]));
      continue;
    }
    unsigned value8 = 0;
    if (i + 2 >= encoded.size() ||
        std::from_chars(encoded.data() + i + 1, encoded.data() + i + 3, value8, 16).ptr !=
            encoded.data() + i + 3) {
      return std::nullopt;
    }
    bytes.push_back(static_cast<std::uint8_t>(value8));
    i += 2;
  }
  ZRBStringEncoding encoding = ZRBStringEncodingFromIANACharsetName(charset);
  if (encoding != ZRBUTF8StringEncoding && encoding != ZRBISOLatin1StringEncoding) return std::nullopt;
  return ZRBStringFromBytes(bytes, encoding);
}

// A name that is safe to join to a directory: no "/" and not "." or "..".
std::optional<std::string> sanitizedFilename(std::string name) {
  std::replace(name.begin(), name.end(), '/', '_');
  std::replace(name.begin(), name.end(), '\0', '_');
  std::string_view trimmed = trim(name);
  if (trimmed.empty() || trimmed == "." || trimmed == "..") return std::nullopt;
  return std::string(trimmed);
}

std::optional<std::string> filenameFromURL(const ZRBURLPtr& url) {
  if (!url) return std::nullopt;
  std::string last = url->lastPathComponent();
  if (last.empty() || last == "/") return std::nullopt;
  return sanitizedFilename(std::move(last));
}

long long parseContentLength(std::optional<std::string_view> value) {
  if (!value) return -1;
  std::string_view digits = trim(*value);
  long long length = -1;
  auto [end, ec] = std::from_chars(digits.data(), digits.data() + digits.size(), length);
  if (ec != std::errc() || end != digits.data() + digits.size() || length < 0) return -1;
  return length;
}

}  // namespace

ZRBContentType ZRBParseContentType(std::string_view value) {
  ZRBContentType result;
  if (value.find(';') == std::string_view::npos) {
    // No parameters, the common case of a response head.
    std::string_view mainValue = trim(value);
    if (!mainValue.empty()) result.MIMEType = lower(mainValue);
    return result;
  }
  auto [mainValue, parameters] = splitParameters(value);
  if (!mainValue.empty()) result.MIMEType = lower(mainValue);
  for (const auto& p : parameters) {
    if (p.name == "charset" && !p.value.empty()) {
      result.charset = lower(p.value);
      break;
    }
  }
  return result;
}

std::optional<std::string> ZRBFilenameFromContentDisposition(std::string_view value) {
  auto [mainValue, parameters] = splitParameters(value);
  std::optional<std::string> plain;
  for (const auto& p : parameters) {
    if (p.name == "filename*") {
      if (auto decoded = decodeExtendedValue(p.value)) {
        if (auto name = sanitizedFilename(std::move(*decoded))) return name;
      }
    } else if (p.name == "filename" && !plain) {
      plain = sanitizedFilename(p.value);
    }
  }
  return plain;
}

ZRBURLResponse::ZRBURLResponse(ZRBURLPtr url, std::optional<std::string> MIMEType,
                               long long expectedContentLength, std::optional<std::string> textEncodingName)
    : url_(std::move(url)),
      mimeType_(std::move(MIMEType)),
      expectedContentLength_(expectedContentLength),
      textEncodingName_(std::move(textEncodingName)) {}

std::string ZRBURLResponse::suggestedFilename() const { return filenameFromURL(url_).value_or("Unknown"); }

std::string ZRBURLResponse::description() const {
  return ZRBObject::description() + " { URL: " + (url_ ? url_->absoluteString() : std::string("(null)")) +
         " }";
}

ZRBHTTPURLResponse::ZRBHTTPURLResponse(ZRBURLPtr url, long statusCode, std::optional<std::string> HTTPVersion,
                                       ZRBHTTPHeaderFields headerFields)
    : ZRBHTTPURLResponse(std::move(url), statusCode, std::move(HTTPVersion), std::move(headerFields), {}) {}

ZRBHTTPURLResponse::ZRBHTTPURLResponse(ZRBURLPtr url, long statusCode, std::optional<std::string> HTTPVersion,
                                       ZRBHTTPHeaderLines headerLines)
    : ZRBHTTPURLResponse(std::move(url), statusCode, std::move(HTTPVersion), {}, std::move(headerLines)) {}

ZRBHTTPURLResponse::ZRBHTTPURLResponse(ZRBURLPtr url, long statusCode, std::optional<std::string> HTTPVersion,
                                       ZRBHTTPHeaderFields headerFields, ZRBHTTPHeaderLines headerLines)
    : ZRBURLResponse(std::move(url), std::nullopt, -1, std::nullopt),
      statusCode_(statusCode),
      httpVersion_(HTTPVersion ? std::move(*HTTPVersion) : std::string("HTTP/1.1")),
      lines_(std::move(headerLines)),
      headers_(std::move(headerFields)) {
  std::optional<std::string_view> contentType, contentLength;
  std::string joinedType, joinedLength;
  if (!lines_.empty()) {
    contentType = lines_.contentType(joinedType);
    contentLength = lines_.contentLength(joinedLength);
  } else {
    if (const std::string* value = headers_.lookup("Content-Type")) contentType = *value;
    if (const std::string* value = headers_.lookup("Content-Length")) contentLength = *value;
  }
  if (contentType && contentType->find(';') == std::string_view::npos) {
    knownMIMEType_ = knownMIMEType(trim(*contentType));
  }
  if (contentType && !knownMIMEType_) {
    ZRBContentType parsed = ZRBParseContentType(*contentType);
    mimeType_ = std::move(parsed.MIMEType);
    textEncodingName_ = std::move(parsed.charset);
  }
  expectedContentLength_ = parseContentLength(contentLength);
}

const ZRBHTTPHeaderFields& ZRBHTTPURLResponse::headerFields() const {
  std::call_once(fieldsMade_, [this] {
    if (lines_.empty()) return;
    headers_ = lines_.fields();
    lines_ = {};
  });
  return headers_;
}

ZRBHTTPURLResponsePtr ZRBHTTPURLResponse::make(ZRBURLPtr url, long statusCode,
                                               std::optional<std::string> HTTPVersion,
                                               const ZRBValue& headerFields) {
  return std::make_shared<const ZRBHTTPURLResponse>(std::move(url), statusCode, std::move(HTTPVersion),
                                                    ZRBHTTPHeaderFields::fromDictionary(headerFields));
}

std::string ZRBHTTPURLResponse::suggestedFilename() const {
  if (auto disposition = headerFields().value("Content-Disposition")) {
    if (auto name = ZRBFilenameFromContentDisposition(*disposition)) return *name;
  }
  return ZRBURLResponse::suggestedFilename();
}

std::string ZRBHTTPURLResponse::localizedStringForStatusCode(long statusCode) {
  switch (statusCode) {
    case 100: return "continue";
    case 101: return "switching protocols";
    case 200: return "no error";
    case 201: return "created";
    case 202: return "accepted";
    case 203: return "non-authoritative information";
    case 204: return "no content";
    case 205: return "reset content";
    case 206: return "partial content";
    case 300: return "multiple choices";
    case 301: return "moved permanently";
    case 302: return "found";
    case 303: return "see other";
    case 304: return "not modified";
    case 305: return "use proxy";
    case 307: return "temporarily redirected";
    case 400: return "bad request";
    case 401: return "unauthorized";
    case 402: return "payment required";
    case 403: return "forbidden";
    case 404: return "not found";
    case 405: return "method not allowed";
    case 406: return "unacceptable";
    case 407: return "proxy authentication required";
    case 408: return "request timed out";
    case 409: return "conflict";
    case 410: return "no longer exists";
    case 411: return "length required";
    case 412: return "precondition failed";
    case 413: return "request too large";
    case 414: return "requested URL too long";
    case 415: return "unsupported media type";
    case 416: return "requested range not satisfiable";
    case 417: return "expectation failed";
    case 500: return "internal server error";
    case 501: return "unimplemented";
    case 502: return "bad gateway";
    case 503: return "service unavailable";
    case 504: return "gateway timed out";
    case 505: return "unsupported version";
    default: break;
  }
  if (statusCode >= 100 && statusCode < 200) return "informational";
  if (statusCode >= 200 && statusCode < 300) return "success";
  if (statusCode >= 300 && statusCode < 400) return "redirected";
  if (statusCode >= 400 && statusCode < 500) return "client error";
  return "server error";
}

std::string ZRBHTTPURLResponse::description() const {
  return ZRBURLResponse::description() + " { Status Code: " + std::to_string(statusCode_) + ", Headers " +
         headerFields().dictionary().description() + " }";
}
