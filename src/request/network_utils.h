// ZRBRQ_NetworkUtils: the request layer's stateless helpers (class operations only).
//
// - validateJSON(json, validator): whether a decoded JSON value has the shape a validator tree
//   describes. A validator is a tree of dictionaries and arrays whose leaves are class tags
//   (ZRBValue::classTag(ZRBValueClass::String), ::Number, ::Dictionary, ::Array, ::Bool, ::Null...;
//   see platform/value.h). A leaf accepts a value when value.isKindOf(tag) holds: Number accepts
//   booleans too, as the platform's number class does; Bool accepts booleans only; Null accepts the
//   null object only. A leaf that is not a class tag accepts nothing. Rules, recursively:
//   * dictionary json, dictionary validator: every key of the validator, in its order, must be in
//     json; a dictionary or array value is validated against the key's validator, any other value
//     must be of the key's class or be the null object. The first failure decides; keys of json
//     that the validator does not name are ignored.
//   * array json, array validator: an empty validator accepts any array; otherwise every element
//     must pass the validator's first item (an empty json array passes).
//   * anything else: json must be an instance of the class the validator names.
// - addDoNotBackupAttribute(path): marks the path as not to be backed up (the platform's marker is
//   a CACHEDIR.TAG in the directory, or the file's directory, see ZRBFileManager); a failure is
//   logged through ZRBNetworkLog as "error to set do not backup attribute, error = %@".
// - md5StringFromString(string): 32 lower-case hex digits of the MD5 of the UTF-8 bytes. A null or
//   empty string is a programming error: ZRBAssert with "string != nil && [string length] > 0",
//   reported for the source file "ZRBRQ_NetworkPrivate". When the assertion handler returns (log
//   and continue), the digest of no bytes is returned.
// - appVersionString(): the main bundle's "CFBundleShortVersionString" string; nullopt when missing
//   or not a string.
// - stringEncodingWithResponse(response): the encoding of the response's charset
//   (textEncodingName) when it names a known encoding; UTF-8 otherwise, also for no response.
// - stringFromResponseData(data, response): the bytes of `data` decoded in the encoding of
//   stringEncodingWithResponse (the response counts only when it is an HTTP response); nullopt when
//   they do not decode.
// - validateResumeData(data): false for anything but non-empty data; true when the bytes parse as a
//   property list (any format) without error.
// - filterUrlHost(url) / filterUrl(url): the whole first match of
//     (?<=http://|\.)([^.]*?\.){1,2}(com|cn|net|org|biz|info|cc|tv)
//     (http://|https://)?([^/]*)
//   in the URL string, nullopt when there is none. The expressions are PCRE2, compiled once per
//   process, matched over the UTF-8 bytes; they never throw. filterUrlHost knows only the "http://"
//   look-behind, so for https URLs it finds the part after the first dot ("example.com" of
//   "https://aa.example.com"), and the top-level word need not end a label ("aa.com" of
//   "http://aa.combo.io"). Neither consults any host-to-IP table.
//
// Every operation is safe from any thread.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "platform/foundation/text_encoding.h"
#include "platform/foundation/value.h"
#include "platform/net/http_url_response.h"

class ZRBRQ_NetworkUtils {
 public:
  ZRBRQ_NetworkUtils() = delete;

  // validateJSON:withValidator:
  static bool validateJSON(const ZRBValue& json, const ZRBValue& validator);

  // addDoNotBackupAttribute:
  static void addDoNotBackupAttribute(const std::string& path);

  // md5StringFromString:
  static std::string md5StringFromString(const std::optional<std::string>& string);

  // appVersionString
  static std::optional<std::string> appVersionString();

  // stringEncodingWithRequest: works on the request's response. The overload taking a
  // ZRBRQ_BaseRequest comes with the request class and hands the request's response to this one.
  static ZRBStringEncoding stringEncodingWithResponse(const ZRBURLResponsePtr& response);

  static std::optional<std::string> stringFromResponseData(const ZRBValue& data,
                                                           const ZRBURLResponsePtr& response);

  // validateResumeData: the value must be data; anything else (absent included) is invalid.
  static bool validateResumeData(const ZRBValue& data);
  static bool validateResumeData(std::span<const std::uint8_t> data);

  // filterUrlHost:
  static std::optional<std::string> filterUrlHost(std::string_view url);
  // filterUrl:
  static std::optional<std::string> filterUrl(std::string_view url);
};

// The two expressions, exactly as the extractors compile them.
inline constexpr std::string_view kZRBRQ_UrlHostPattern =
    R"((?<=http://|\.)([^.]*?\.){1,2}(com|cn|net|org|biz|info|cc|tv))";
inline constexpr std::string_view kZRBRQ_UrlPattern = R"((http://|https://)?([^/]*))";
