// The command line of `orvel get`: spellings a curl user types, and the mistakes it refuses.
#include "orvel/get_options.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <tuple>
#include <vector>

namespace {

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
      // curl's "-C -" spelling; the dash is not taken for the URL.
      {{"-sC", "-", "-o", "f", "http://h/"}, [](auto& o) { return o.resume && o.url == "http://h/"; }},
      {{"--continue-at", "-", "-o", "f", "http://h/"}, [](auto& o) { return o.resume; }},
      {{"-d", "a=1", "--data=b=2", "http://h/"},
       [](auto& o) {
         return o.dataFields == std::vector<std::string>{"a=1", "b=2"};
       }},
      // After "--" a word starting with "-" is the URL.
      {{"--", "-not-an-option"}, [](auto& o) { return o.url == "-not-an-option"; }},
  };
  for (const auto& testCase : cases) {
    SCOPED_TRACE(testing::PrintToString(testCase.words));
    std::string error;
    auto options = orvelParseGetArguments(testCase.words, error);
    ASSERT_TRUE(options) << error;
    EXPECT_TRUE(testCase.check(*options));
  }
}

TEST(OrvelGetOptions, HeadersKeepTheirOrderAndCurlsThreeForms) {
  const std::vector<std::string_view> words{
      "-H", "X-One:  1 ", "--header", "Accept:", "-H", "X-Empty;", "-HX-Two: a: b", "http://h/"};
  std::string error;
  auto options = orvelParseGetArguments(words, error);
  ASSERT_TRUE(options);
  std::vector<std::tuple<std::string, std::string, bool>> headers;
  for (const auto& header : options->headers) headers.emplace_back(header.name, header.value, header.remove);
  // "Name:" drops the field, "Name;" sends it empty, and only the first colon separates.
  EXPECT_EQ(
      headers,
      (decltype(headers){
          {"X-One", "1", false}, {"Accept", "", true}, {"X-Empty", "", false}, {"X-Two", "a: b", false}}));
}

TEST(OrvelGetOptions, MistakesAreRefusedWithAMessage) {
  struct Case {
    std::vector<std::string_view> words;
    std::string_view messagePart;
  };
  const Case cases[] = {
      {{}, "no URL"},
      {{"http://a/", "http://b/"}, "only one URL"},
      {{"--frobnicate", "http://h/"}, "unknown option '--frobnicate'"},
      {{"-sZ", "http://h/"}, "unknown option '-Z'"},
      {{"http://h/", "-o"}, "-o needs a value"},
      {{"http://h/", "--cacert"}, "--cacert needs a value"},
      {{"--include=yes", "http://h/"}, "takes no value"},
      {{"-C", "http://h/"}, "-C resumes a download into a file"},
      {{"-d", "a=1", "--json", "{}", "http://h/"}, "cannot be combined"},
      {{"-G", "-F", "b=2", "http://h/"}, "-G"},
      {{"-C", "-o", "f", "-d", "a=1", "http://h/"}, "downloads only"},
      {{"-H", "no colon here", "http://h/"}, "is not \"Name: value\""},
      {{"-H", ": value", "http://h/"}, "has no name"},
      {{"-F", "novalue", "http://h/"}, "form field"},
      {{"-F", "=@file", "http://h/"}, "form field"},
      {{"-X", "", "http://h/"}, "needs a method"},
  };
  for (const auto& testCase : cases) {
    SCOPED_TRACE(testing::PrintToString(testCase.words));
    std::string error;
    EXPECT_FALSE(orvelParseGetArguments(testCase.words, error));
    EXPECT_NE(error.find(testCase.messagePart), std::string::npos) << error;
  }
}

}  // namespace
