#include "get_options.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <charconv>
#include <cstdint>
#include <cstring>
#include <optional>
#include <string_view>

namespace {

std::string_view trim(std::string_view text) {
  while (!text.empty() && (text.front() == ' ' || text.front() == '\t')) text.remove_prefix(1);
  while (!text.empty() && (text.back() == ' ' || text.back() == '\t')) text.remove_suffix(1);
  return text;
}

std::string quoted(std::string_view text) { return "'" + std::string(text) + "'"; }

// A token of HTTP: what field names and methods are made of.
bool isToken(std::string_view text) {
  static constexpr std::string_view kSeparators = "!#$%&'*+-.^_`|~";
  return !text.empty() && std::all_of(text.begin(), text.end(), [](char c) {
    return std::isalnum(static_cast<unsigned char>(c)) || kSeparators.find(c) != std::string_view::npos;
  });
}

// A field value must not end the line or the head early.
bool isFieldValue(std::string_view text) {
  return text.find_first_of(std::string_view("\r\n\0", 3)) == text.npos;
}

// "@FILE" (or "@-" for standard input) is replaced by what FILE holds, as curl does; a single line
// break at its end is dropped. False with `error` set when it cannot be read.
bool expandFile(std::string_view shown, std::string_view value, std::string& out, std::string& error) {
  if (!value.starts_with("@")) {
    out = std::string(value);
    return true;
  }
  auto path = value.substr(1);
  if (path.empty()) {
    error = std::string(shown) + " @FILE: no file named";
    return false;
  }
  errno = 0;
  auto contents = orvelReadFile(path);
  if (!contents) {
    error = std::string(shown) + " " + std::string(value) + ": cannot read it" +
            (errno ? std::string(": ") + std::strerror(errno) : "");
    return false;
  }
  if (contents->ends_with("\r\n")) {
    contents->resize(contents->size() - 2);
  } else if (contents->ends_with('\n')) {
    contents->pop_back();
  }
  out = std::move(*contents);
  return true;
}

// "Name: value" sets a field, "Name:" removes one the library would send, "Name;" sends it empty:
// the same three spellings curl understands.
bool parseHeader(std::string_view shown, std::string_view text, OrvelGetOptions& options,
                 std::string& error) {
  auto colon = text.find(':');
  std::string_view name, value;
  bool empty = false;
  if (colon != std::string_view::npos) {
    name = trim(text.substr(0, colon));
    value = trim(text.substr(colon + 1));
  } else if (!text.empty() && text.back() == ';') {
    name = trim(text.substr(0, text.size() - 1));
    empty = true;
  } else {
    error = std::string(shown) + " " + quoted(text) + ": not \"Name: value\"";
    return false;
  }
  if (name.empty()) {
    error = std::string(shown) + " " + quoted(text) + ": the field has no name";
    return false;
  }
  if (!isToken(name)) {
    error = std::string(shown) + " " + quoted(text) + ": " + quoted(name) + " is not a field name";
    return false;
  }
  if (!isFieldValue(value)) {
    error = std::string(shown) + ": the value of " + std::string(name) + " holds a line break";
    return false;
  }
  options.headers.push_back({std::string(name), std::string(value), !empty && value.empty()});
  return true;
}

// A whole positive number of bytes.
std::optional<std::uint64_t> parseByteCount(std::string_view text) {
  std::uint64_t value = 0;
  auto [end, failure] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (failure != std::errc() || end != text.data() + text.size() || value == 0) return std::nullopt;
  return value;
}

// Whether a word after an option looks like a number meant for it ("-1", "300").
bool looksNumeric(std::string_view word) {
  if (word.starts_with('-') || word.starts_with('+')) word.remove_prefix(1);
  return !word.empty() && std::all_of(word.begin(), word.end(), [](char c) { return c >= '0' && c <= '9'; });
}

struct Option {
  char shortName;  // 0: long form only
  std::string_view longName;
  enum Value { None, Required, OptionalDash, OptionalNumber } value;
  // Returns false (with `error` set) when the value is unusable. `shown` is the option as typed.
  bool (*apply)(OrvelGetOptions& options, std::string_view value, std::string_view shown, std::string& error);
};

// Options whose value names something (a file, a method) refuse an empty one.
bool needsText(std::string_view value, std::string_view shown, std::string_view what, std::string& error) {
  if (!value.empty()) return true;
  error = std::string(shown) + " needs " + std::string(what);
  return false;
}

constexpr Option kOptions[] = {
    {'o', "output", Option::Required,
     [](OrvelGetOptions& o, std::string_view v, std::string_view shown, std::string& e) {
       if (!needsText(v, shown, "a file name (or - for standard output)", e)) return false;
       // "-o -" is standard output, as with curl.
       o.outputPath = v == "-" ? std::nullopt : std::optional<std::string>(v);
       return true;
     }},
    {'i', "include", Option::None,
     [](OrvelGetOptions& o, std::string_view, std::string_view, std::string&) {
       return o.includeHead = true;
     }},
    {'f', "fail", Option::None,
     [](OrvelGetOptions& o, std::string_view, std::string_view, std::string&) {
       return o.failOnHTTPError = true;
     }},
    {'L', "location", Option::None,
     [](OrvelGetOptions& o, std::string_view, std::string_view, std::string&) {
       return o.followRedirects = true;
     }},
    // curl spells "resume where the file ends" as "-C -"; an offset is not supported.
    {'C', "continue-at", Option::OptionalDash,
     [](OrvelGetOptions& o, std::string_view, std::string_view, std::string&) { return o.resume = true; }},
    {'k', "insecure", Option::None,
     [](OrvelGetOptions& o, std::string_view, std::string_view, std::string&) { return o.insecure = true; }},
    {'s', "silent", Option::None,
     [](OrvelGetOptions& o, std::string_view, std::string_view, std::string&) { return o.silent = true; }},
    {'G', "get", Option::None,
     [](OrvelGetOptions& o, std::string_view, std::string_view, std::string&) { return o.forceGet = true; }},
    {0, "decode", Option::None,
     [](OrvelGetOptions& o, std::string_view, std::string_view, std::string&) { return o.decode = true; }},
    {0, "throttle", Option::OptionalNumber,
     [](OrvelGetOptions& o, std::string_view v, std::string_view shown, std::string& e) {
       o.throttle = true;
       if (v.empty()) return true;
       auto size = parseByteCount(v);
       if (!size) {
         e = std::string(shown) + " " + quoted(v) + ": not a packet size (a positive number of bytes)";
         return false;
       }
       o.throttlePacketSize = *size;
       return true;
     }},
    {0, "timeout", Option::Required,
     [](OrvelGetOptions& o, std::string_view v, std::string_view shown, std::string& e) {
       auto [end, failure] = std::from_chars(v.data(), v.data() + v.size(), o.timeout);
       if (failure == std::errc() && end == v.data() + v.size() && o.timeout > 0) return true;
       e = std::string(shown) + " " + quoted(v) + ": not a number of seconds above 0";
       return false;
     }},
    {0, "cache", Option::Required,
     [](OrvelGetOptions& o, std::string_view v, std::string_view shown, std::string& e) {
       auto seconds = parseByteCount(v);
       if (!seconds || *seconds > 100000000) {
         e = std::string(shown) + " " + quoted(v) + ": not a whole number of seconds above 0";
         return false;
       }
       o.cacheSeconds = static_cast<long>(*seconds);
       return true;
     }},
    {0, "cacert", Option::Required,
     [](OrvelGetOptions& o, std::string_view v, std::string_view shown, std::string& e) {
       if (!needsText(v, shown, "a file name", e)) return false;
       o.caCertificatePath = std::string(v);
       return true;
     }},
    {0, "resolve", Option::Required,
     [](OrvelGetOptions& o, std::string_view v, std::string_view shown, std::string& e) {
       if (!orvelIsResolveEntry(v)) {
         e = std::string(shown) + " " + quoted(v) + ": not HOST:PORT:ADDRESS";
         return false;
       }
       o.resolve.emplace_back(v);
       return true;
     }},
    {0, "pinning-config", Option::Required,
     [](OrvelGetOptions& o, std::string_view v, std::string_view shown, std::string& e) {
       if (!needsText(v, shown, "a file name", e)) return false;
       o.pinningConfigPath = std::string(v);
       return true;
     }},
    {'H', "header", Option::Required,
     [](OrvelGetOptions& o, std::string_view v, std::string_view shown, std::string& e) {
       return parseHeader(shown, v, o, e);
     }},
    {'X', "request", Option::Required,
     [](OrvelGetOptions& o, std::string_view v, std::string_view shown, std::string& e) {
       if (!needsText(v, shown, "a method", e)) return false;
       if (!isToken(v)) {
         e = std::string(shown) + " " + quoted(v) + ": not a method name";
         return false;
       }
       o.method = std::string(v);
       return true;
     }},
    {'d', "data", Option::Required,
     [](OrvelGetOptions& o, std::string_view v, std::string_view shown, std::string& e) {
       std::string field;
       if (!expandFile(shown, v, field, e)) return false;
       if (field.starts_with('=')) {
         e = std::string(shown) + " " + quoted(field) + ": the field has no name";
         return false;
       }
       o.dataFields.push_back(std::move(field));
       return true;
     }},
    {0, "json", Option::Required,
     [](OrvelGetOptions& o, std::string_view v, std::string_view shown, std::string& e) {
       std::string document;
       if (!expandFile(shown, v, document, e)) return false;
       if (!needsText(document, shown, "a JSON document", e)) return false;
       o.json = std::move(document);
       return true;
     }},
    {'F', "form", Option::Required,
     [](OrvelGetOptions& o, std::string_view v, std::string_view shown, std::string& e) {
       auto equals = v.find('=');
       if (equals == std::string_view::npos || equals == 0) {
         e = std::string(shown) + " " + quoted(v) + ": not \"name=value\" or \"name=@file\"";
         return false;
       }
       if (v.substr(equals + 1) == "@" || v.substr(equals + 1).starts_with("@;")) {
         e = std::string(shown) + " " + quoted(v) + ": no file after @";
         return false;
       }
       o.formFields.emplace_back(v);
       return true;
     }},
    {'u', "user", Option::Required,
     [](OrvelGetOptions& o, std::string_view v, std::string_view shown, std::string& e) {
       // "user" alone has an empty password.
       if (v.empty() || v.front() == ':') {
         e = std::string(shown) + " " + quoted(v) + ": no user name in \"user:password\"";
         return false;
       }
       o.user = std::string(v);
       return true;
     }},
};

const Option* findShort(char name) {
  for (const auto& option : kOptions) {
    if (option.shortName != 0 && option.shortName == name) return &option;
  }
  return nullptr;
}

const Option* findLong(std::string_view name) {
  for (const auto& option : kOptions) {
    if (option.longName == name) return &option;
  }
  return nullptr;
}

}  // namespace

std::optional<OrvelGetOptions> orvelParseGetArguments(OrvelArguments arguments, std::string& error) {
  OrvelGetOptions options;
  bool haveURL = false;
  bool optionsEnded = false;
  auto takeURL = [&](std::string_view argument) {
    if (haveURL) {
      error = "only one URL, please (got '" + options.url + "' and '" + std::string(argument) + "')";
      return false;
    }
    options.url = std::string(argument);
    return haveURL = true;
  };

  for (std::size_t index = 0; index < arguments.size(); ++index) {
    std::string_view argument = arguments[index];
    // The value of an option: the rest of the word ("-oFILE", "--output=FILE") or the next word.
    auto valueFor = [&](std::string_view inlineValue, bool hasInline, std::string_view shown,
                        std::string_view& value) {
      if (hasInline) {
        value = inlineValue;
        return true;
      }
      if (index + 1 >= arguments.size()) {
        error = "option " + std::string(shown) + " needs a value";
        return false;
      }
      value = arguments[++index];
      return true;
    };

    // The word after an option whose value may be left out: "-C -" takes the dash; a number after
    // -C (an offset, which is not supported) or after --throttle belongs to it too, so that "-C 100"
    // or "--throttle -1" is refused by name instead of being read as a URL or another option.
    auto takeOptionalValue = [&](const Option& option, const std::string& shown, std::string_view& value) {
      if (index + 1 >= arguments.size()) return true;
      std::string_view next = arguments[index + 1];
      if (option.value == Option::OptionalDash && next == "-") {
        ++index;
      } else if (option.value == Option::OptionalDash && looksNumeric(next)) {
        error = shown + " " + quoted(next) + ": only \"" + shown +
                " -\" (resume where the file ends) is supported";
        return false;
      } else if (option.value == Option::OptionalNumber && looksNumeric(next)) {
        value = next;
        ++index;
      }
      return true;
    };

    if (optionsEnded || argument.size() < 2 || argument.front() != '-') {
      if (!takeURL(argument)) return std::nullopt;
      continue;
    }
    if (argument == "--") {
      optionsEnded = true;
      continue;
    }
    if (argument.starts_with("--")) {
      auto body = argument.substr(2);
      auto equals = body.find('=');
      auto name = body.substr(0, equals);
      const Option* option = findLong(name);
      if (option == nullptr) {
        error = "unknown option '" + std::string(argument) + "'";
        return std::nullopt;
      }
      std::string shown = "--" + std::string(name);
      std::string_view value;
      bool hasInline = equals != std::string_view::npos;
      if (option->value == Option::Required) {
        if (!valueFor(hasInline ? body.substr(equals + 1) : std::string_view(), hasInline, shown, value)) {
          return std::nullopt;
        }
      } else if (hasInline && option->value == Option::OptionalNumber) {
        value = body.substr(equals + 1);
        if (value.empty()) value = "(empty)";
      } else if (hasInline) {
        error = "option " + shown + " takes no value";
        return std::nullopt;
      } else if (!takeOptionalValue(*option, shown, value)) {
        return std::nullopt;
      }
      if (!option->apply(options, value, shown, error)) return std::nullopt;
      continue;
    }
    // A cluster of short options ("-sfL"); one that takes a value ends the cluster.
    for (std::size_t at = 1; at < argument.size(); ++at) {
      const Option* option = findShort(argument[at]);
      if (option == nullptr) {
        error = "unknown option '-" + std::string(1, argument[at]) + "'";
        return std::nullopt;
      }
      std::string_view value;
      std::string shown = "-" + std::string(1, argument[at]);
      if (option->value == Option::Required) {
        bool hasInline = at + 1 < argument.size();
        if (!valueFor(argument.substr(at + 1), hasInline, shown, value)) return std::nullopt;
        at = argument.size();
      } else if (at + 1 == argument.size() && !takeOptionalValue(*option, shown, value)) {
        return std::nullopt;
      }
      if (!option->apply(options, value, shown, error)) return std::nullopt;
    }
  }

  if (!haveURL) {
    error = "no URL given";
    return std::nullopt;
  }
  if (options.resume && !options.outputPath) {
    error = "-C resumes a download into a file: give one with -o";
    return std::nullopt;
  }
  int bodies = !options.dataFields.empty() + options.json.has_value() + !options.formFields.empty();
  if (bodies > 1) {
    error = "-d, --json and -F cannot be combined";
    return std::nullopt;
  }
  if (options.forceGet && (options.json || !options.formFields.empty())) {
    error = "-G puts -d fields into the query; it does not go with --json or -F";
    return std::nullopt;
  }
  if (options.resume && bodies > 0) {
    error = "-C resumes downloads only; it does not go with -d, --json or -F";
    return std::nullopt;
  }
  if (options.cacheSeconds && (options.resume || !options.formFields.empty())) {
    error = "--cache keeps whole answers to requests without a streamed body; it does not go with -C or -F";
    return std::nullopt;
  }
  if (options.decode && options.outputPath) {
    error = "--decode prints the decoded body; it does not go with -o";
    return std::nullopt;
  }
  if (options.throttle && options.formFields.empty()) {
    error = "--throttle slows -F uploads down; there is none to slow";
    return std::nullopt;
  }
  return options;
}

const char* orvelGetUsage() {
  return "usage: orvel get [OPTIONS] URL\n"
         "\n"
         "Fetches URL and prints the body on standard output.\n"
         "\n"
         "  -o, --output FILE    write the body to FILE\n"
         "  -i, --include        print the status line and header fields first\n"
         "  -H, --header 'N: v'  send a header field (repeatable; 'N:' removes one, 'N;' sends it empty)\n"
         "  -f, --fail           fail with exit status 22 on HTTP status 400 or above\n"
         "  -L, --location       follow redirects\n"
         "  -C, --continue-at [-] resume an interrupted download to -o FILE\n"
         "      --timeout SECONDS give up when nothing arrives for SECONDS (60)\n"
         "      --cache SECONDS  answer from the request cache while its entry is younger (and fill it)\n"
         "      --cacert FILE    trust the PEM certificates in FILE instead of the system's\n"
         "  -k, --insecure       accept any server certificate\n"
         "      --resolve H:P:A  connect to address A for host H and port P (repeatable)\n"
         "      --pinning-config FILE  pin the connection by the pinning configuration in FILE (JSON,\n"
         "                       property list, or an Info.plist's PGDConfiguration)\n"
         "  -s, --silent         no progress bar\n"
         "  -X, --request METHOD use METHOD instead of GET (or POST with a body)\n"
         "  -d, --data k=v       a form field (repeatable; @FILE reads it); in the query for GET, HEAD\n"
         "  -G, --get            send -d fields in the query of a GET\n"
         "      --json TEXT      send TEXT (or @FILE), a JSON document, as the body\n"
         "  -F, --form n=v|n=@f  a multipart field or file (repeatable), streamed\n"
         "      --throttle [N]   send -F bodies in packets of N bytes (16384) with pauses\n"
         "  -u, --user u:p       basic authorization\n"
         "      --decode         print the body decoded by its Content-Type: JSON and property lists\n"
         "                       as indented JSON, XML as parser events\n"
         "\n"
         "Exit status: 0 done, 1 the transfer or the output failed (a refusal by the pins too), 2 usage\n"
         "(also an unusable --cacert or --pinning-config),\n"
         "22 HTTP status 400 or above with -f or when resuming, or a body --decode refuses, 130\n"
         "interrupted.\n";
}
