// The command line of `orvel get`: spellings a curl user types, and the mistakes it refuses.
#include "orvel/get_options.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <functional>
#include <string>
#include <tuple>
#include <vector>

namespace {

TEST(OrvelGetOptions, EveryOptionSpellingReachesItsField) {
  const std::string file = testing::TempDir() + "orvel-data-field";
  std::ofstream(file) << "name=Ann Lee\n";
  const std::string at = "@" + file;
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
      // @FILE loses one final line break.
      {{"-d", at, "http://h/"},
       [](auto& o) { return o.dataFields == std::vector<std::string>{"name=Ann Lee"}; }},
      {{"-F", "a=b", "--throttle", "4096", "-u", "bob", "http://h/"},
       [](auto& o) { return o.throttlePacketSize == 4096u && o.user == "bob"; }},
      {{"--timeout", "2.5", "--cache=90", "http://h/"},
       [](auto& o) { return o.timeout == 2.5 && o.cacheSeconds == 90; }},
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
  std::remove(file.c_str());
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
      {{"--include=yes", "http://h/"}, "takes no value"},
      {{"-C", "http://h/"}, "-C resumes a download into a file"},
      {{"-d", "a=1", "--json", "{}", "http://h/"}, "cannot be combined"},
      {{"-G", "-F", "b=2", "http://h/"}, "-G"},
      {{"-C", "-o", "f", "-d", "a=1", "http://h/"}, "downloads only"},
      {{"--throttle", "http://h/"}, "--throttle slows -F uploads"},
  };
  for (const auto& testCase : cases) {
    SCOPED_TRACE(testing::PrintToString(testCase.words));
    std::string error;
    EXPECT_FALSE(orvelParseGetArguments(testCase.words, error));
    EXPECT_NE(error.find(testCase.messagePart), std::string::npos) << error;
  }
}

// Every option with a missing or malformed value is refused by name, before anything is sent.
TEST(OrvelGetOptions, MissingAndMalformedValuesNameTheirOption) {
  struct Case {
    std::vector<std::string_view> words;
    std::string_view messageStart;
  };
  const Case cases[] = {
      {{"http://h/", "-o"}, "option -o needs a value"},
      {{"http://h/", "--cacert"}, "option --cacert needs a value"},
      {{"-o", "", "http://h/"}, "-o needs a file name"},
      {{"--cacert=", "http://h/"}, "--cacert needs a file name"},
      {{"-H", "no colon here", "http://h/"}, "-H 'no colon here': not \"Name: value\""},
      {{"-H", ": value", "http://h/"}, "-H ': value': the field has no name"},
      {{"--header", "Bad Name: v", "http://h/"}, "--header 'Bad Name: v': 'Bad Name' is not a field name"},
      {{"-H", "X-A: 1\r\nX-B: 2", "http://h/"}, "-H: the value of X-A holds a line break"},
      {{"-X", "", "http://h/"}, "-X needs a method"},
      {{"-X", "GET /x", "http://h/"}, "-X 'GET /x': not a method name"},
      {{"-d", "=v", "http://h/"}, "-d '=v': the field has no name"},
      {{"-d", "@", "http://h/"}, "-d @FILE: no file named"},
      {{"-d", "@/no/such/file", "http://h/"}, "-d @/no/such/file: cannot read it"},
      {{"--json", "@/no/such/file", "http://h/"}, "--json @/no/such/file: cannot read it"},
      {{"--json", "", "http://h/"}, "--json needs a JSON document"},
      {{"-F", "novalue", "http://h/"}, "-F 'novalue': not \"name=value\" or \"name=@file\""},
      {{"-F", "=@file", "http://h/"}, "-F '=@file': not"},
      {{"-F", "f=@", "http://h/"}, "-F 'f=@': no file after @"},
      {{"-u", ":pw", "http://h/"}, "-u ':pw': no user name"},
      {{"-F", "a=b", "--throttle", "-1", "http://h/"}, "--throttle '-1': not a packet size"},
      {{"-F", "a=b", "--throttle=0", "http://h/"}, "--throttle '0': not a packet size"},
      {{"-C", "100", "-o", "f", "http://h/"}, "-C '100': only \"-C -\""},
      {{"--timeout", "0", "http://h/"}, "--timeout '0': not a number of seconds above 0"},
      {{"--timeout", "1s", "http://h/"}, "--timeout '1s': not a number"},
      {{"--cache", "-5", "http://h/"}, "--cache '-5': not a whole number of seconds"},
      {{"--cache", "60", "-C", "-o", "f", "http://h/"}, "--cache keeps whole answers"},
  };
  for (const auto& testCase : cases) {
    SCOPED_TRACE(testing::PrintToString(testCase.words));
    std::string error;
    EXPECT_FALSE(orvelParseGetArguments(testCase.words, error));
    EXPECT_TRUE(error.starts_with(testCase.messageStart)) << error;
  }
}

}  // namespace
