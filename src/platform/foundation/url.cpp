#include "platform/foundation/url.h"

#include <sys/stat.h>
#include <unistd.h>

#include <boost/url/parse.hpp>
#include <boost/url/url_view.hpp>
#include <charconv>
#include <functional>

#include "platform/foundation/text_encoding.h"

namespace {

namespace urls = boost::urls;

// The pieces of an RFC 3986 reference, percent-encoded as written.
struct Reference {
  std::optional<std::string> scheme;
  std::optional<std::string> authority;
  std::string path;
  std::optional<std::string> query;
  std::optional<std::string> fragment;
};

// The parser also accepts "http://h:1x/", reading "x/" as the path; RFC 3986 wants a path after
// an authority to be empty or to start with "/".
bool hasValidPathAfterAuthority(const urls::url_view& v) {
  return !v.has_authority() || v.encoded_path().empty() || v.encoded_path().front() == '/';
}

std::optional<Reference> parseReference(std::string_view text) {
  auto parsed = urls::parse_uri_reference(urls::string_view(text.data(), text.size()));
  if (!parsed || !hasValidPathAfterAuthority(*parsed)) return std::nullopt;
  const urls::url_view& v = *parsed;
  Reference r;
  if (v.has_scheme()) r.scheme = std::string(v.scheme());
  if (v.has_authority()) r.authority = std::string(v.encoded_authority());
  r.path = std::string(v.encoded_path());
  if (v.has_query()) r.query = std::string(v.encoded_query());
  if (v.has_fragment()) r.fragment = std::string(v.encoded_fragment());
  return r;
}

// RFC 3986 section 5.2.4.
std::string removeDotSegments(std::string_view input) {
  std::string output;
  output.reserve(input.size());
  auto dropLastOutputSegment = [&output] {
    auto slash = output.rfind('/');
    output.erase(slash == std::string::npos ? 0 : slash);
  };
  while (!input.empty()) {
    if (input.starts_with("../")) {
      input.remove_prefix(3);
    } else if (input.starts_with("./")) {
      input.remove_prefix(2);
    } else if (input.starts_with("/./")) {
      input.remove_prefix(2);
    } else if (input == "/.") {
      input = "/";
    } else if (input.starts_with("/../")) {
      input.remove_prefix(3);
      dropLastOutputSegment();
    } else if (input == "/..") {
      input = "/";
      dropLastOutputSegment();
    } else if (input == "." || input == "..") {
      input = {};
    } else {
      std::size_t end = input.find('/', input.front() == '/' ? 1 : 0);
      if (end == std::string_view::npos) end = input.size();
      output.append(input.substr(0, end));
      input.remove_prefix(end);
    }
  }
  return output;
}

// RFC 3986 section 5.2.3.
std::string mergePaths(const Reference& base, std::string_view relativePath) {
  if (base.authority && base.path.empty()) return "/" + std::string(relativePath);
  auto slash = base.path.rfind('/');
  if (slash == std::string::npos) return std::string(relativePath);
  return base.path.substr(0, slash + 1) + std::string(relativePath);
}

// RFC 3986 section 5.2.2, strict: a reference with a scheme is never read as relative.
Reference resolve(const Reference& base, const Reference& ref) {
  Reference t;
  if (ref.scheme) {
    t.scheme = ref.scheme;
    t.authority = ref.authority;
    t.path = removeDotSegments(ref.path);
    t.query = ref.query;
  } else {
    if (ref.authority) {
      t.authority = ref.authority;
      t.path = removeDotSegments(ref.path);
      t.query = ref.query;
    } else {
      if (ref.path.empty()) {
        t.path = base.path;
        t.query = ref.query ? ref.query : base.query;
      } else {
        t.path = removeDotSegments(ref.path.front() == '/' ? ref.path : mergePaths(base, ref.path));
        t.query = ref.query;
      }
      t.authority = base.authority;
    }
    t.scheme = base.scheme;
  }
  t.fragment = ref.fragment;
  return t;
}

// RFC 3986 section 5.3.
std::string recompose(const Reference& r) {
  std::string out;
  if (r.scheme) out += *r.scheme + ":";
  if (r.authority) out += "//" + *r.authority;
  // Without an authority a path must not start with "//", or it would be read as one.
  if (!r.authority && r.path.starts_with("//")) out += "/.";
  out += r.path;
  if (r.query) out += "?" + *r.query;
  if (r.fragment) out += "#" + *r.fragment;
  return out;
}

bool isUnreserved(unsigned char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' || c == '.' ||
         c == '_' || c == '~';
}

int hexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// Decoded text, or the text as it stands when it does not decode to UTF-8.
std::string decodedOrVerbatim(std::string_view text) {
  if (text.find('%') == std::string_view::npos) return std::string(text);
  auto decoded = ZRBURLPercentDecode(text);
  return decoded ? std::move(*decoded) : std::string(text);
}

// What a path segment may hold besides unreserved characters (RFC 3986 pchar), plus "/".
constexpr std::string_view kPathAllowed = "!$&'()*+,;=:@/";

std::vector<std::string_view> splitSegments(std::string_view encodedPath) {
  std::vector<std::string_view> segments;
  std::size_t start = 0;
  while (start <= encodedPath.size()) {
    std::size_t end = encodedPath.find('/', start);
    if (end == std::string_view::npos) end = encodedPath.size();
    if (end > start) segments.push_back(encodedPath.substr(start, end - start));
    start = end + 1;
  }
  return segments;
}

bool isDirectoryOnDisk(const std::string& path) {
  struct stat st;
  return ::stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

}  // namespace

std::optional<std::string> ZRBURLPercentDecode(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '%') {
      out.push_back(text[i]);
      continue;
    }
    if (i + 2 >= text.size()) return std::nullopt;
    int high = hexValue(text[i + 1]);
    int low = hexValue(text[i + 2]);
    if (high < 0 || low < 0) return std::nullopt;
    out.push_back(static_cast<char>(high * 16 + low));
    i += 2;
  }
  if (!ZRBIsValidUTF8(out)) return std::nullopt;
  return out;
}

std::string ZRBURLPercentEncode(std::string_view text, std::string_view allowed) {
  static constexpr char kHex[] = "0123456789ABCDEF";
  std::string out;
  out.reserve(text.size());
  for (char ch : text) {
    auto c = static_cast<unsigned char>(ch);
    if (isUnreserved(c) || (c != 0 && allowed.find(ch) != std::string_view::npos)) {
      out.push_back(ch);
    } else {
      out.push_back('%');
      out.push_back(kHex[c >> 4]);
      out.push_back(kHex[c & 15]);
    }
  }
  return out;
}

ZRBURL::ZRBURL(Private, std::string relative, ZRBURLPtr base, std::string absolute)
    : relative_(std::move(relative)), base_(std::move(base)), absolute_(std::move(absolute)) {}

ZRBURLPtr ZRBURL::make(std::string relative, ZRBURLPtr base, std::string absolute) {
  auto parsed = urls::parse_uri_reference(urls::string_view(absolute.data(), absolute.size()));
  if (!parsed || !hasValidPathAfterAuthority(*parsed)) return nullptr;
  const urls::url_view& v = *parsed;
  std::string port;
  if (v.has_port()) {
    port = std::string(v.port());
    if (!port.empty()) {
      unsigned long number = 0;
      auto [end, ec] = std::from_chars(port.data(), port.data() + port.size(), number);
      if (ec != std::errc() || number > 65535) return nullptr;
    }
  }
  auto url = std::make_shared<ZRBURL>(Private(), std::move(relative), std::move(base), "");
  if (v.has_scheme()) url->scheme_ = std::string(v.scheme());
  url->hasAuthority_ = v.has_authority();
  if (v.has_userinfo()) {
    url->user_ = std::string(v.encoded_user());
    if (v.has_password()) url->password_ = std::string(v.encoded_password());
  }
  url->host_ = std::string(v.encoded_host_address());
  url->port_ = std::move(port);
  url->path_ = std::string(v.encoded_path());
  if (v.has_query()) url->query_ = std::string(v.encoded_query());
  if (v.has_fragment()) url->fragment_ = std::string(v.encoded_fragment());
  url->absolute_ = std::move(absolute);
  return url;
}

ZRBURLPtr ZRBURL::URLWithString(std::string_view string) {
  if (string.empty()) return nullptr;
  return make(std::string(string), nullptr, std::string(string));
}

ZRBURLPtr ZRBURL::URLWithString(std::string_view string, const ZRBURLPtr& baseURL) {
  if (!baseURL) return URLWithString(string);
  auto ref = parseReference(string);
  auto base = parseReference(baseURL->absoluteString());
  if (!ref || !base) return nullptr;
  return make(std::string(string), baseURL, recompose(resolve(*base, *ref)));
}

ZRBURLPtr ZRBURL::fileURLWithPath(std::string_view path, bool isDirectory) {
  if (path.empty()) return nullptr;
  std::string full;
  if (path.front() != '/') {
    char buffer[4096];
    if (!::getcwd(buffer, sizeof buffer)) return nullptr;
    full = buffer;
    if (full.back() != '/') full += '/';
  }
  full.append(path);
  if (isDirectory && full.back() != '/') full += '/';
  std::string text = "file://" + ZRBURLPercentEncode(full, kPathAllowed);
  return make(text, nullptr, text);
}

ZRBURLPtr ZRBURL::fileURLWithPath(std::string_view path) {
  if (path.empty()) return nullptr;
  return fileURLWithPath(path, isDirectoryOnDisk(std::string(path)));
}

ZRBURLPtr ZRBURL::absoluteURL() const {
  if (!base_) return std::static_pointer_cast<const ZRBURL>(shared_from_this());
  return make(absolute_, nullptr, absolute_);
}

std::optional<std::string> ZRBURL::scheme() const { return scheme_; }

std::optional<std::string> ZRBURL::host() const {
  if (!hasAuthority_ || host_.empty()) return std::nullopt;
  return decodedOrVerbatim(host_);
}

std::optional<int> ZRBURL::port() const {
  if (port_.empty()) return std::nullopt;
  int number = 0;
  std::from_chars(port_.data(), port_.data() + port_.size(), number);
  return number;
}

std::optional<std::string> ZRBURL::user() const {
  if (!user_) return std::nullopt;
  return decodedOrVerbatim(*user_);
}

std::optional<std::string> ZRBURL::password() const {
  if (!password_) return std::nullopt;
  return decodedOrVerbatim(*password_);
}

bool ZRBURL::hasHierarchicalPath() const { return !scheme_ || hasAuthority_ || path_.starts_with('/'); }

std::string ZRBURL::path() const {
  if (!hasHierarchicalPath()) return {};
  std::string_view encoded = path_;
  if (encoded.size() > 1 && encoded.back() == '/') encoded.remove_suffix(1);
  return decodedOrVerbatim(encoded);
}

std::optional<std::string> ZRBURL::query() const { return query_; }
std::optional<std::string> ZRBURL::fragment() const { return fragment_; }
bool ZRBURL::hasDirectoryPath() const { return path_.ends_with('/'); }

bool ZRBURL::isFileURL() const {
  if (!scheme_ || scheme_->size() != 4) return false;
  for (std::size_t i = 0; i < 4; ++i) {
    if (((*scheme_)[i] | 0x20) != "file"[i]) return false;
  }
  return true;
}

std::vector<std::string> ZRBURL::pathComponents() const {
  std::vector<std::string> components;
  if (!hasHierarchicalPath() || path_.empty()) return components;
  if (path_.front() == '/') components.emplace_back("/");
  for (std::string_view segment : splitSegments(path_)) components.push_back(decodedOrVerbatim(segment));
  return components;
}

std::string ZRBURL::lastPathComponent() const {
  auto components = pathComponents();
  return components.empty() ? std::string() : std::move(components.back());
}

std::string ZRBURL::pathExtension() const {
  std::string last = lastPathComponent();
  auto dot = last.rfind('.');
  if (dot == std::string::npos || dot == 0 || last == "/") return {};
  return last.substr(dot + 1);
}

ZRBURLPtr ZRBURL::withPath(std::string encodedPath) const {
  Reference r;
  r.scheme = scheme_;
  if (hasAuthority_) {
    auto parsed = parseReference(absolute_);
    if (!parsed) return nullptr;
    r.authority = parsed->authority;
  }
  r.path = std::move(encodedPath);
  r.query = query_;
  r.fragment = fragment_;
  std::string text = recompose(r);
  return make(text, nullptr, text);
}

ZRBURLPtr ZRBURL::URLByAppendingPathComponent(std::string_view component) const {
  if (!isFileURL()) return URLByAppendingPathComponent(component, false);
  auto plain = URLByAppendingPathComponent(component, false);
  if (!plain || plain->hasDirectoryPath() || !isDirectoryOnDisk(plain->path())) return plain;
  return plain->withPath(plain->path_ + "/");
}

ZRBURLPtr ZRBURL::URLByAppendingPathComponent(std::string_view component, bool isDirectory) const {
  if (!hasHierarchicalPath()) return nullptr;
  std::string path = path_;
  std::string encoded = ZRBURLPercentEncode(component, kPathAllowed);
  if (path.empty() && hasAuthority_) path = "/";
  if (!path.empty() && path.back() != '/') path += '/';
  std::string_view rest = encoded;
  if (path.ends_with('/') && rest.starts_with('/')) rest.remove_prefix(1);
  path.append(rest);
  if (isDirectory && !path.ends_with('/')) path += '/';
  return withPath(std::move(path));
}

ZRBURLPtr ZRBURL::URLByDeletingLastPathComponent() const {
  if (!hasHierarchicalPath()) return nullptr;
  std::string path = path_;
  if (path.empty() || path == "/") return withPath(path);
  if (path.back() == '/') path.pop_back();
  auto slash = path.rfind('/');
  path = slash == std::string::npos ? std::string("./") : path.substr(0, slash + 1);
  return withPath(std::move(path));
}

ZRBURLPtr ZRBURL::URLByAppendingPathExtension(std::string_view pathExtension) const {
  if (!hasHierarchicalPath()) return nullptr;
  std::string path = path_;
  bool directory = path.ends_with('/');
  if (directory) path.pop_back();
  if (path.empty() || path.back() == '/') return nullptr;
  path += '.';
  path += ZRBURLPercentEncode(pathExtension, "!$&'()*+,;=:@");
  if (directory) path += '/';
  return withPath(std::move(path));
}

ZRBURLPtr ZRBURL::URLByDeletingPathExtension() const {
  if (!hasHierarchicalPath()) return nullptr;
  std::string path = path_;
  bool directory = path.ends_with('/') && path.size() > 1;
  if (directory) path.pop_back();
  auto slash = path.rfind('/');
  auto dot = path.rfind('.');
  std::size_t nameStart = slash == std::string::npos ? 0 : slash + 1;
  if (dot != std::string::npos && dot > nameStart) path.erase(dot);
  if (directory) path += '/';
  return withPath(std::move(path));
}

bool ZRBURL::isEqual(const ZRBObject& other) const {
  auto* url = dynamic_cast<const ZRBURL*>(&other);
  return url && url->absolute_ == absolute_;
}

std::size_t ZRBURL::hash() const { return std::hash<std::string>{}(absolute_); }
