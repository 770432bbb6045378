// The test server's value types and convenience routes: everything that needs no Beast.
#include <openssl/evp.h>

#include <algorithm>
#include <charconv>
#include <stdexcept>

#include "support/test_server.h"
#include "support/test_server_internal.h"

ZRBTestSHA256::ZRBTestSHA256() : context_(EVP_MD_CTX_new(), EVP_MD_CTX_free) {
  if (!context_ || EVP_DigestInit_ex(context_.get(), EVP_sha256(), nullptr) != 1) {
    throw std::runtime_error("SHA-256 unavailable");
  }
}

void ZRBTestSHA256::update(std::string_view bytes) {
  if (!bytes.empty()) EVP_DigestUpdate(context_.get(), bytes.data(), bytes.size());
}

std::string ZRBTestSHA256::finish() {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  EVP_DigestFinal_ex(context_.get(), digest, &length);
  static constexpr char kHex[] = "0123456789abcdef";
  std::string hex;
  for (unsigned int i = 0; i < length; ++i) {
    hex += kHex[digest[i] >> 4];
    hex += kHex[digest[i] & 15];
  }
  return hex;
}

namespace zrb_test_server {

std::string jsonString(std::string_view text) {
  std::string out = "\"";
  for (char ch : text) {
    auto byte = static_cast<unsigned char>(ch);
    switch (ch) {
      case '"': out += "\\\""; break;
      case '\\': out += "\\\\"; break;
      case '\n': out += "\\n"; break;
      case '\r': out += "\\r"; break;
      case '\t': out += "\\t"; break;
      default:
        if (byte < 0x20) {
          static constexpr char kHex[] = "0123456789abcdef";
          out += "\\u00";
          out += kHex[byte >> 4];
          out += kHex[byte & 15];
        } else {
          out += ch;
        }
    }
  }
  return out + "\"";
}

bool equalsIgnoringCase(std::string_view a, std::string_view b) {
  return std::ranges::equal(a, b, [](char x, char y) {
    auto lower = [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; };
    return lower(x) == lower(y);
  });
}

}  // namespace zrb_test_server

using zrb_test_server::equalsIgnoringCase;
using zrb_test_server::jsonString;

// Headers.

void ZRBTestHeaders::set(std::string_view name, std::string value) {
  remove(name);
  fields_.emplace_back(std::string(name), std::move(value));
}

void ZRBTestHeaders::remove(std::string_view name) {
  std::erase_if(fields_, [&](const Field& field) { return equalsIgnoringCase(field.first, name); });
}

bool ZRBTestHeaders::has(std::string_view name) const { return get(name).has_value(); }

std::optional<std::string> ZRBTestHeaders::get(std::string_view name) const {
  for (const auto& [key, value] : fields_) {
    if (equalsIgnoringCase(key, name)) return value;
  }
  return std::nullopt;
}

// Bodies.

namespace {

std::uint64_t mix(std::uint64_t x) {
  x += 0x9e3779b97f4a7c15ull;
  x = (x ^ (x >> 30)) * 0xbf58476d1ce4e5b9ull;
  x = (x ^ (x >> 27)) * 0x94d049bb133111ebull;
  return x ^ (x >> 31);
}

}  // namespace

void ZRBTestPatternFill(std::uint64_t offset, std::span<char> out, std::uint64_t seed) {
  // Eight bytes per mixed word: cheap enough to stream a gigabyte, and without a period.
  const std::uint64_t salt = mix(seed);
  std::size_t i = 0;
  while (i < out.size()) {
    std::uint64_t position = offset + i;
    std::uint64_t word = mix((position >> 3) ^ salt);
    for (unsigned shift = (position & 7) * 8; shift < 64 && i < out.size(); shift += 8, ++i) {
      out[i] = static_cast<char>((word >> shift) & 0xff);
    }
  }
}

std::string ZRBTestPatternBytes(std::uint64_t offset, std::uint64_t length, std::uint64_t seed) {
  std::string bytes(length, '\0');
  ZRBTestPatternFill(offset, bytes, seed);
  return bytes;
}

std::string ZRBTestPatternSHA256(std::uint64_t offset, std::uint64_t length, std::uint64_t seed) {
  ZRBTestSHA256 hash;
  std::string piece(64 * 1024, '\0');
  while (length > 0) {
    std::size_t n = static_cast<std::size_t>(std::min<std::uint64_t>(length, piece.size()));
    ZRBTestPatternFill(offset, std::span<char>(piece.data(), n), seed);
    hash.update(std::string_view(piece.data(), n));
    offset += n;
    length -= n;
  }
  return hash.finish();
}

std::string ZRBTestSHA256Hex(std::string_view bytes) {
  ZRBTestSHA256 hash;
  hash.update(bytes);
  return hash.finish();
}

ZRBTestBodySource ZRBTestBodySource::pattern(std::uint64_t size, std::uint64_t seed) {
  return {size, [seed](std::uint64_t offset, std::span<char> out) { ZRBTestPatternFill(offset, out, seed); }};
}

// Responses.

ZRBTestResponse ZRBTestResponse::text(int status, std::string body, std::string contentType) {
  ZRBTestResponse response;
  response.status = status;
  response.headers.add("Content-Type", std::move(contentType));
  response.body = std::move(body);
  return response;
}

ZRBTestResponse ZRBTestResponse::json(int status, std::string body) {
  return text(status, std::move(body), "application/json");
}

ZRBTestResponse ZRBTestResponse::generated(std::uint64_t size, std::uint64_t seed) {
  ZRBTestResponse response;
  response.headers.add("Content-Type", "application/octet-stream");
  response.generatedBody = ZRBTestBodySource::pattern(size, seed);
  return response;
}

// Convenience routes.

void ZRBTestServer::respond(std::string method, std::string path, ZRBTestResponse response) {
  handle(std::move(method), std::move(path), [response](const ZRBTestRecordedRequest&) { return response; });
}

void ZRBTestServer::respondPrefix(std::string method, std::string pathPrefix, ZRBTestResponse response) {
  route({.method = std::move(method),
         .path = std::move(pathPrefix),
         .prefix = true,
         .handler = [response](const ZRBTestRecordedRequest&) { return response; }});
}

void ZRBTestServer::handle(std::string method, std::string path, ZRBTestHandler handler) {
  route({.method = std::move(method), .path = std::move(path), .handler = std::move(handler)});
}

void ZRBTestServer::redirect(std::string path, std::string location, int status) {
  ZRBTestResponse response;
  response.status = status;
  response.headers.add("Location", std::move(location));
  respond("", std::move(path), std::move(response));
}

void ZRBTestServer::redirectLoop(std::string pathA, std::string pathB, int status) {
  redirect(pathA, pathB, status);
  redirect(pathB, pathA, status);
}

namespace {

std::string trim(std::string_view text) {
  while (!text.empty() && (text.front() == ' ' || text.front() == '\t')) text.remove_prefix(1);
  while (!text.empty() && (text.back() == ' ' || text.back() == '\t')) text.remove_suffix(1);
  return std::string(text);
}

std::optional<std::uint64_t> parseNumber(std::string_view text) {
  if (text.empty()) return std::nullopt;
  std::uint64_t value = 0;
  auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return value;
}

struct ByteRange {
  std::uint64_t first = 0;
  std::uint64_t last = 0;
};

// nullopt: serve the whole body; a range with first > last: unsatisfiable.
std::optional<ByteRange> parseRange(std::string_view header, std::uint64_t size) {
  std::string value = trim(header);
  if (!value.starts_with("bytes=")) return std::nullopt;
  std::string_view rangeSet = std::string_view(value).substr(6);
  if (rangeSet.find(',') != std::string_view::npos) return std::nullopt;
  auto dash = rangeSet.find('-');
  if (dash == std::string_view::npos) return std::nullopt;
  std::string firstText = trim(rangeSet.substr(0, dash));
  std::string lastText = trim(rangeSet.substr(dash + 1));
  constexpr ByteRange kUnsatisfiable{1, 0};
  if (firstText.empty()) {
    auto suffix = parseNumber(lastText);
    if (!suffix) return std::nullopt;
    if (*suffix == 0 || size == 0) return kUnsatisfiable;
    return ByteRange{size - std::min(*suffix, size), size - 1};
  }
  auto first = parseNumber(firstText);
  if (!first) return std::nullopt;
  std::optional<std::uint64_t> last = size == 0 ? 0 : size - 1;
  if (!lastText.empty()) {
    last = parseNumber(lastText);
    if (!last || *last < *first) return std::nullopt;
  }
  if (*first >= size) return kUnsatisfiable;
  return ByteRange{*first, std::min(*last, size - 1)};
}

// If-Range is compared strongly with the entity tag; a date never matches.
bool ifRangeMatches(const std::string& ifRange, const ZRBTestRangeOptions& options) {
  return options.etag && !options.etag->starts_with("W/") && *options.etag == trim(ifRange);
}

}  // namespace

void ZRBTestServer::serveRanges(std::string path, ZRBTestRangeOptions options) {
  auto shared = std::make_shared<const ZRBTestRangeOptions>(std::move(options));
  handle("GET", std::move(path), [shared](const ZRBTestRecordedRequest& request) {
    const ZRBTestRangeOptions& o = *shared;
    ZRBTestResponse response = o.shape;
    response.status = 200;
    response.headers.set("Content-Type", o.contentType);
    response.headers.set("Accept-Ranges", "bytes");
    if (o.etag) response.headers.set("ETag", *o.etag);
    response.body.clear();
    response.generatedBody = o.body;

    std::optional<ByteRange> range;
    auto rangeHeader = request.header("Range");
    if (!o.ignoreRange && rangeHeader) {
      auto ifRange = request.header("If-Range");
      if (!ifRange || ifRangeMatches(*ifRange, o)) range = parseRange(*rangeHeader, o.body.size);
    }
    if (!range) return response;
    if (range->first > range->last) {
      response.status = 416;
      response.headers.set("Content-Range", "bytes */" + std::to_string(o.body.size));
      response.generatedBody.reset();
      return response;
    }
    std::uint64_t first = range->first;
    std::uint64_t length = range->last - range->first + 1;
    response.status = 206;
    response.headers.set("Content-Range", "bytes " + std::to_string(first) + "-" +
                                              std::to_string(range->last) + "/" +
                                              std::to_string(o.body.size));
    auto fill = o.body.fill;
    response.generatedBody = ZRBTestBodySource{
        length, [fill, first](std::uint64_t offset, std::span<char> out) { fill(first + offset, out); }};
    return response;
  });
}

void ZRBTestServer::uploadSink(std::string path, ZRBTestUploadSinkOptions options) {
  int status = options.status;
  route({.path = std::move(path),
         .handler =
             [status](const ZRBTestRecordedRequest& request) {
               return ZRBTestResponse::json(status, "{\"bytes\":" + std::to_string(request.bodySize) +
                                                        ",\"sha256\":" + jsonString(request.bodySHA256) +
                                                        "}");
             },
         .bodyKeepLimit = options.keepLimit});
}

void ZRBTestServer::echo(std::string pathPrefix) {
  route({.path = std::move(pathPrefix), .prefix = true, .handler = [](const ZRBTestRecordedRequest& request) {
           // Repeated fields are joined, as a client reading them through a map would see them.
           std::vector<std::pair<std::string, std::string>> joined;
           for (const auto& [name, value] : request.headers.fields()) {
             auto it = std::ranges::find_if(
                 joined, [&name = name](const auto& field) { return equalsIgnoringCase(field.first, name); });
             if (it == joined.end()) {
               joined.emplace_back(name, value);
             } else {
               it->second += ", " + value;
             }
           }
           std::string headers;
           for (const auto& [name, value] : joined) {
             if (!headers.empty()) headers += ',';
             headers += jsonString(name) + ":" + jsonString(value);
           }
           std::string body = "{\"method\":" + jsonString(request.method) +
                              ",\"target\":" + jsonString(request.target) + ",\"headers\":{" + headers +
                              "},\"bodyLength\":" + std::to_string(request.bodySize) +
                              ",\"bodySHA256\":" + jsonString(request.bodySHA256) +
                              ",\"connectionID\":" + std::to_string(request.connectionID) +
                              ",\"tls\":" + (request.tls ? "true" : "false") + "}";
           return ZRBTestResponse::json(200, std::move(body));
         }});
}
