// The command line of `orvel get`: spellings a curl user types, and the mistakes it refuses.
#include "orvel/get_options.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

namespace {

std::optional<OrvelGetOptions> parse(const std::vector<std::string_view>& words,
                                     std::string* error = nullptr) {
  std::string message;
  auto options = orvelParseGetArguments(OrvelArguments(words), message);
  if (error) *error = message;
  return options;
}

TEST(OrvelGetOptions, EveryOptionSpellingReachesItsField) {
  struct Case {
    std::vector<std::string_view> words;
    std::function<bool(const OrvelGetOptions&)> check;
  };
  const Case cases[] = {
      {{"-o", "out.bin", "http://h/"}, [](auto& o) { return o.outputPath == "out.bin"; }},
      {{"-oout.bin", "http://h/"}, [](auto& o) { return o.outputPath == "out.bin"; }},
      {{"--output=out.bin", "http://h/"}, [](auto& o) { return o.outputPath == "out.bin"; }},
      {{"http://h/", "--output", "out.bin"}, [](auto& o) { return o.outputPath == "out.bin"; }},
      {{"-o", "x", "-o", "-", "http://h/"}, [](auto& o) { return !o.outputPath; }},
      // A cluster of flags; the one taking a value ends it.
      {{"-sfLiko", "f", "http://h/"},
       [](auto& o) {
         return o.silent && o.failOnHTTPError && o.followRedirects && o.includeHead && o.insecure &&
                o.outputPath == "f";
       }},
      {{"-C", "-o", "f", "http://h/"}, [](auto& o) { return o.resume; }},
      // curl's "-C -" spelling; the dash is not taken for the URL.
      {{"-C", "-", "-o", "f", "http://h/"}, [](auto& o) { return o.resume && o.url == "http://h/"; }},
      {{"-sC", "-", "-o", "f", "http://h/"}, [](auto& o) { return o.resume && o.url == "http://h/"; }},
      {{"--continue-at", "-", "-o", "f", "http://h/"}, [](auto& o) { return o.resume; }},
      {{"--cacert", "ca.pem", "https://h/"}, [](auto& o) { return o.caCertificatePath == "ca.pem"; }},
      {{"-XPUT", "http://h/"}, [](auto& o) { return o.method == "PUT"; }},
      {{"-d", "a=1", "--data=b=2", "http://h/"},
       [](auto& o) {
         return o.dataFields == std::vector<std::string>{"a=1", "b=2"};
       }},
      {{"-G", "-d", "a=1", "http://h/"}, [](auto& o) { return o.forceGet; }},
      {{"--json", "{\"a\":1}", "http://h/"}, [](auto& o) { return o.json == "{\"a\":1}"; }},
      {{"-F", "f=@x.txt", "-F", "n=v", "--throttle", "http://h/"},
       [](auto& o) { return o.formFields.size() == 2 && o.throttle; }},
      {{"-u", "ann:secret", "http://h/"}, [](auto& o) { return o.user == "ann:secret"; }},
      // After "--" a word starting with "-" is the URL.
      {{"--", "-not-an-option"}, [](auto& o) { return o.url == "-not-an-option"; }},
  };
  for (const auto& testCase : cases) {
    std::string error;
    auto options = parse(testCase.words, &error);
    std::string shown;
    for (auto word : testCase.words) shown += std::string(word) + " ";
    ASSERT_TRUE(options) << shown << ": " << error;
    EXPECT_TRUE(testCase.check(*options)) << shown;
  }
}

TEST(OrvelGetOptions, HeadersKeepTheirOrderAndCurlsThreeForms) {
  auto options =
      parse({"-H", "X-One:  1 ", "--header", "Accept:", "-H", "X-Empty;", "-HX-Two: a: b", "http://h/"});
  ASSERT_TRUE(options);
  ASSERT_EQ(options->headers.size(), 4u);
  EXPECT_EQ(options->headers[0].name, "X-One");
  EXPECT_EQ(options->headers[0].value, "1");
  EXPECT_FALSE(options->headers[0].remove);
  EXPECT_EQ(options->headers[1].name, "Accept");  // "Name:" drops the field
  EXPECT_TRUE(options->headers[1].remove);
  EXPECT_EQ(options->headers[2].name, "X-Empty");  // "Name;" sends it empty
  EXPECT_EQ(options->headers[2].value, "");
  EXPECT_FALSE(options->headers[2].remove);
  EXPECT_EQ(options->headers[3].value, "a: b");  // only the first colon separates
}

TEST(OrvelGetOptions, MistakesAreRefusedWithAMessage) {
  struct Case {
    std::vector<std::string_view> words;
    std::string_view messagePart;
  };
  const Case cases[] = {
      {{}, "no URL"},
      {{"-s"}, "no URL"},
      {{"http://a/", "http://b/"}, "only one URL"},
      {{"--frobnicate", "http://h/"}, "unknown option '--frobnicate'"},
      {{"-sZ", "http://h/"}, "unknown option '-Z'"},
      {{"http://h/", "-o"}, "-o needs a value"},
      {{"http://h/", "--cacert"}, "--cacert needs a value"},
      {{"--include=yes", "http://h/"}, "takes no value"},
      {{"-C", "http://h/"}, "-C resumes a download into a file"},
      {{"-d", "a=1", "--json", "{}", "http://h/"}, "cannot be combined"},
      {{"-d", "a=1", "-F", "b=2", "http://h/"}, "cannot be combined"},
      {{"-G", "-F", "b=2", "http://h/"}, "-G"},
      {{"-C", "-o", "f", "-d", "a=1", "http://h/"}, "downloads only"},
      {{"-H", "no colon here", "http://h/"}, "is not \"Name: value\""},
      {{"-H", ": value", "http://h/"}, "has no name"},
      {{"-F", "novalue", "http://h/"}, "form field"},
      {{"-F", "=@file", "http://h/"}, "form field"},
      {{"-X", "", "http://h/"}, "needs a method"},
  };
  for (const auto& testCase : cases) {
    std::string error;
    std::string shown;
    for (auto word : testCase.words) shown += std::string(word) + " ";
    EXPECT_FALSE(parse(testCase.words, &error)) << shown;
    EXPECT_NE(error.find(testCase.messagePart), std::string::npos) << shown << "-> " << error;
  }
}

}  // namespace
