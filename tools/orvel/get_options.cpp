#include "get_options.h"

#include <string_view>

namespace {

std::string_view trim(std::string_view text) {
  while (!text.empty() && (text.front() == ' ' || text.front() == '\t')) text.remove_prefix(1);
  while (!text.empty() && (text.back() == ' ' || text.back() == '\t')) text.remove_suffix(1);
  return text;
}

// "Name: value" sets a field, "Name:" removes one the library would send, "Name;" sends it empty:
// the same three spellings curl understands.
bool parseHeader(std::string_view text, OrvelGetOptions& options, std::string& error) {
  auto colon = text.find(':');
  if (colon == std::string_view::npos) {
    if (!text.empty() && text.back() == ';' && !trim(text.substr(0, text.size() - 1)).empty()) {
      options.headers.push_back({std::string(trim(text.substr(0, text.size() - 1))), "", false});
      return true;
    }
    error = "header '" + std::string(text) + "' is not \"Name: value\"";
    return false;
  }
  auto name = trim(text.substr(0, colon));
  if (name.empty()) {
    error = "header '" + std::string(text) + "' has no name";
    return false;
  }
  auto value = trim(text.substr(colon + 1));
  options.headers.push_back({std::string(name), std::string(value), value.empty()});
  return true;
}

struct Option {
  char shortName;  // 0: long form only
  std::string_view longName;
  bool takesValue;
  // Returns false (with `error` set) when the value is unusable.
  bool (*apply)(OrvelGetOptions& options, std::string_view value, std::string& error);
  // curl spells "resume where the file ends" as "-C -"; the "-" is taken when it follows.
  bool takesOptionalDash = false;
};

constexpr Option kOptions[] = {
    {'o', "output", true,
     [](OrvelGetOptions& o, std::string_view v, std::string&) {
       // "-o -" is standard output, as with curl.
       o.outputPath = v == "-" ? std::nullopt : std::optional<std::string>(v);
       return true;
     }},
    {'i', "include", false,
     [](OrvelGetOptions& o, std::string_view, std::string&) { return o.includeHead = true; }},
    {'f', "fail", false,
     [](OrvelGetOptions& o, std::string_view, std::string&) { return o.failOnHTTPError = true; }},
    {'L', "location", false,
     [](OrvelGetOptions& o, std::string_view, std::string&) { return o.followRedirects = true; }},
    {'C', "continue-at", false,
     [](OrvelGetOptions& o, std::string_view, std::string&) { return o.resume = true; }, true},
    {'k', "insecure", false,
     [](OrvelGetOptions& o, std::string_view, std::string&) { return o.insecure = true; }},
    {'s', "silent", false,
     [](OrvelGetOptions& o, std::string_view, std::string&) { return o.silent = true; }},
    {'G', "get", false, [](OrvelGetOptions& o, std::string_view, std::string&) { return o.forceGet = true; }},
    {0, "throttle", false,
     [](OrvelGetOptions& o, std::string_view, std::string&) { return o.throttle = true; }},
    {0, "cacert", true,
     [](OrvelGetOptions& o, std::string_view v, std::string&) {
       o.caCertificatePath = std::string(v);
       return true;
     }},
    {'H', "header", true,
     [](OrvelGetOptions& o, std::string_view v, std::string& e) { return parseHeader(v, o, e); }},
    {'X', "request", true,
     [](OrvelGetOptions& o, std::string_view v, std::string& e) {
       if (v.empty()) {
         e = "-X needs a method";
         return false;
       }
       o.method = std::string(v);
       return true;
     }},
    {'d', "data", true,
     [](OrvelGetOptions& o, std::string_view v, std::string&) {
       o.dataFields.emplace_back(v);
       return true;
     }},
    {0, "json", true,
     [](OrvelGetOptions& o, std::string_view v, std::string&) {
       o.json = std::string(v);
       return true;
     }},
    {'F', "form", true,
     [](OrvelGetOptions& o, std::string_view v, std::string& e) {
       if (v.find('=') == std::string_view::npos || v.front() == '=') {
         e = "form field '" + std::string(v) + "' is not \"name=value\" or \"name=@file\"";
         return false;
       }
       o.formFields.emplace_back(v);
       return true;
     }},
    {'u', "user", true,
     [](OrvelGetOptions& o, std::string_view v, std::string&) {
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
      std::string_view value;
      if (option->takesValue) {
        bool hasInline = equals != std::string_view::npos;
        if (!valueFor(hasInline ? body.substr(equals + 1) : std::string_view(), hasInline, argument, value)) {
          return std::nullopt;
        }
      } else if (equals != std::string_view::npos) {
        error = "option --" + std::string(name) + " takes no value";
        return std::nullopt;
      }
      if (!option->apply(options, value, error)) return std::nullopt;
      if (option->takesOptionalDash && index + 1 < arguments.size() && arguments[index + 1] == "-") ++index;
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
      if (option->takesValue) {
        bool hasInline = at + 1 < argument.size();
        std::string shown = "-" + std::string(1, argument[at]);
        if (!valueFor(argument.substr(at + 1), hasInline, shown, value)) return std::nullopt;
        at = argument.size();
      }
      if (!option->apply(options, value, error)) return std::nullopt;
      bool lastInCluster = at + 1 == argument.size();
      if (option->takesOptionalDash && lastInCluster && index + 1 < arguments.size() &&
          arguments[index + 1] == "-") {
        ++index;
      }
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
         "      --cacert FILE    trust the PEM certificates in FILE instead of the system's\n"
         "  -k, --insecure       accept any server certificate\n"
         "  -s, --silent         no progress bar\n"
         "  -X, --request METHOD use METHOD instead of GET (or POST with a body)\n"
         "  -d, --data k=v       a form field (repeatable); in the query for GET, HEAD and DELETE\n"
         "  -G, --get            send -d fields in the query of a GET\n"
         "      --json TEXT      send TEXT, a JSON document, as the body\n"
         "  -F, --form n=v|n=@f  a multipart field or file (repeatable), streamed\n"
         "      --throttle       send multipart bodies in small packets with pauses\n"
         "  -u, --user u:p       basic authorization\n"
         "\n"
         "Exit status: 0 done, 1 the transfer failed, 2 usage, 22 HTTP error with -f, 130 interrupted.\n";
}
