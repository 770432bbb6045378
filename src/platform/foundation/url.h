// ZRBURL: an immutable, parsed URL (RFC 3986).
//
// A URL is made from a string that must be a valid RFC 3986 URI reference: no spaces, no
// characters outside ASCII, every "%" followed by two hexadecimal digits. Nothing is repaired or
// encoded on the caller's behalf; invalid input gives a null pointer. A URL made relative to a
// base keeps both (relativeString(), baseURL()) and answers every component question for the
// resolved URL (absoluteString()), resolved exactly as RFC 3986 section 5 defines it.
//
// Components are reported as the platform does:
// - scheme(), query() and fragment() as written (percent-encoded); a present but empty query
//   ("http://h/p?") is an empty string, not absent;
// - host() percent-decoded, IPv6 literals without their brackets, absent when there is no
//   authority or its host is empty;
// - user() and password() percent-decoded;
// - path() percent-decoded, without a trailing "/" except for the root, empty for URLs without
//   a hierarchical path ("mailto:a@b").
// Decoding that does not give valid UTF-8 leaves the text percent-encoded.
//
// Equality and hashing use absoluteString(); description() is absoluteString().
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/foundation/object.h"

class ZRBURL;
using ZRBURLPtr = std::shared_ptr<const ZRBURL>;

class ZRBURL final : public ZRBObject {
 public:
  // Null for an empty string and anything that is not an RFC 3986 URI reference. Ports above
  // 65535 are refused too: nothing could connect to them.
  static ZRBURLPtr URLWithString(std::string_view string);
  // `string` resolved against `baseURL` (RFC 3986 section 5.2, including remove_dot_segments).
  // The empty string is allowed here and stands for the base without its fragment. A null base
  // makes this the one-argument form.
  static ZRBURLPtr URLWithString(std::string_view string, const ZRBURLPtr& baseURL);
  // A "file://" URL for a file-system path, percent-encoding what a path cannot hold (spaces,
  // "%", "?", "#", non-ASCII bytes...). A relative path is taken relative to the current working
  // directory. A directory URL ends in "/". Null for an empty path.
  static ZRBURLPtr fileURLWithPath(std::string_view path, bool isDirectory);
  // As above; whether the path is a directory is asked of the file system.
  static ZRBURLPtr fileURLWithPath(std::string_view path);

  const std::string& absoluteString() const { return absolute_; }
  // The string the URL was made from (equal to absoluteString() without a base).
  const std::string& relativeString() const { return relative_; }
  const ZRBURLPtr& baseURL() const { return base_; }
  // This URL without its base: the resolved string on its own.
  ZRBURLPtr absoluteURL() const;

  std::optional<std::string> scheme() const;
  std::optional<std::string> host() const;
  std::optional<int> port() const;
  std::optional<std::string> user() const;
  std::optional<std::string> password() const;
  std::string path() const;
  // The path exactly as written in the resolved URL, still percent-encoded, trailing "/" kept.
  const std::string& percentEncodedPath() const { return path_; }
  std::optional<std::string> query() const;
  std::optional<std::string> fragment() const;
  // Whether the path ends in "/".
  bool hasDirectoryPath() const;
  // The scheme is "file" (in any case).
  bool isFileURL() const;

  // The decoded path's pieces: "/" first for an absolute path, then one entry per non-empty
  // segment ("/a/b/" gives "/", "a", "b"). Empty when there is no path.
  std::vector<std::string> pathComponents() const;
  // The last of pathComponents(): "/" for the root, "" without a path.
  std::string lastPathComponent() const;
  // What follows the last "." of lastPathComponent(); "" when there is none or the only dot
  // starts the name (".profile").
  std::string pathExtension() const;

  // A URL whose path has `component` appended after a "/" (none is doubled); the component is
  // text, so "%", "?", "#" and spaces in it are percent-encoded ("/" is kept). Appending the empty
  // component adds a trailing "/". Query and fragment are kept. The result has no base. For a
  // file URL the one-argument form adds a trailing "/" when the result names an existing
  // directory. Null for URLs without a hierarchical path.
  ZRBURLPtr URLByAppendingPathComponent(std::string_view component) const;
  ZRBURLPtr URLByAppendingPathComponent(std::string_view component, bool isDirectory) const;
  // The URL of the parent: "http://h/a/b" and "http://h/a/b/" give "http://h/a/". The root
  // stays the root.
  ZRBURLPtr URLByDeletingLastPathComponent() const;
  // "a/b" + "gz" gives "a/b.gz" ("a/b/" gives "a/b.gz/"). Null when the path has no last
  // component to extend (empty path or the root).
  ZRBURLPtr URLByAppendingPathExtension(std::string_view pathExtension) const;
  ZRBURLPtr URLByDeletingPathExtension() const;

  std::string className() const override { return "ZRBURL"; }
  std::string description() const override { return absolute_; }
  bool isEqual(const ZRBObject& other) const override;
  std::size_t hash() const override;

 private:
  // Only the factories can name this, so only they can call the (public, for make_shared)
  // constructor.
  struct Private {
    explicit Private() = default;
  };

 public:
  ZRBURL(Private, std::string relative, ZRBURLPtr base, std::string absolute);

 private:
  // Parses `absolute`; null unless it is a valid reference.
  static ZRBURLPtr make(std::string relative, ZRBURLPtr base, std::string absolute);
  ZRBURLPtr withPath(std::string encodedPath) const;
  bool hasHierarchicalPath() const;

  std::string relative_;
  ZRBURLPtr base_;
  std::string absolute_;
  // Components of the resolved URL, percent-encoded.
  std::optional<std::string> scheme_;
  bool hasAuthority_ = false;
  std::optional<std::string> user_;
  std::optional<std::string> password_;
  std::string host_;  // without brackets
  std::string port_;
  std::string path_;
  std::optional<std::string> query_;
  std::optional<std::string> fragment_;
};

// "%XX" escapes decoded; nullopt when an escape is malformed or the result is not valid UTF-8.
std::optional<std::string> ZRBURLPercentDecode(std::string_view text);

// Percent-encodes every byte of `text` that is neither an RFC 3986 unreserved character nor one
// of `allowed`, as "%" and two upper-case hexadecimal digits.
std::string ZRBURLPercentEncode(std::string_view text, std::string_view allowed);
