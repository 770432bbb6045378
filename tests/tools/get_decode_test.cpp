// `orvel get --decode`: what is printed for each kind of body, and which bodies are refused.
#include "orvel/get_decode.h"

#include <gtest/gtest.h>

#include <string>

#include "platform/foundation/property_list_serialization.h"
#include "support/test_images.h"

namespace {

struct Printed {
  int status;
  std::string out, err;
};

std::string contents(std::FILE* file) {
  std::string text;
  std::rewind(file);
  char buffer[4096];
  for (std::size_t n; (n = std::fread(buffer, 1, sizeof buffer, file)) > 0;) text.append(buffer, n);
  std::fclose(file);
  return text;
}

Printed decode(long status, std::optional<std::string> type, const ZRBValue& body) {
  ZRBDictionaryBuilder fields;
  if (type) fields.set("Content-Type", ZRBValue(*type));
  auto response =
      ZRBHTTPURLResponse::make(ZRBURL::URLWithString("http://h/p"), status, "HTTP/1.1", fields.build());
  std::FILE* out = std::tmpfile();
  std::FILE* err = std::tmpfile();
  int code = orvelPrintDecodedBody(response, body, out, err);
  return {code, contents(out), contents(err)};
}

TEST(OrvelGetDecode, PrintsEachKindOfBodyOrRefusesIt) {
  auto plist = ZRBPropertyListSerialization::dataWithPropertyList(
      ZRBValue::dictionary({{"raw", ZRBValue::data("hi")}, {"n", 1}}), ZRBPropertyListBinaryFormat_v1_0);
  ASSERT_TRUE(plist);
  struct Case {
    const char* name;
    long status;
    std::optional<std::string> type;
    ZRBValue body;
    int exit;
    std::string out, err;
  } cases[] = {
      {"JSON", 200, "application/json; charset=utf-8", ZRBValue::data(R"({"a":[1,null],"u":"x/y"})"), 0,
       "{\n  \"a\" : [\n    1,\n    null\n  ],\n  \"u\" : \"x/y\"\n}\n", ""},
      {"a JSON fragment is not a document", 200, "text/json", ZRBValue::data("7"), 22, "",
       "orvel: The data couldn\u2019t be read because it isn\u2019t in the correct format. (JSON text did "
       "not start with array or object and option to allow fragments not set. around line 1, column 0.)\n"},
      {"property list", 200, "application/x-plist", ZRBValue::data(*plist), 0,
       "{\n  \"raw\" : \"aGk=\",\n  \"n\" : 1\n}\n", ""},
      {"XML", 200, "application/xml",
       ZRBValue::data(
           "<?xml version=\"1.0\"?><?go now?><r a=\"1\">\n  <i>x &amp; y</i><!--c--><![CDATA[<z>]]></r>"),
       0,
       "start document\nprocessing instruction go \"now\"\nstart element r a=\"1\"\nstart element i\n"
       "characters \"x & y\"\nend element i\ncomment \"c\"\ncdata \"<z>\"\nend element r\nend document\n",
       ""},
      {"broken XML", 200, "text/xml", ZRBValue::data("<r>\n<i></r>"), 22,
       "start document\nstart element r\nstart element i\n", "orvel: mismatched tag (line 2, column 6)\n"},
      {"empty", 204, std::nullopt, ZRBValue::data(""), 0, "", ""},
      {"one space", 200, "application/json", ZRBValue::data(" "), 0, "", ""},
      {"another type", 200, "text/plain", ZRBValue::data("hello"), 22, "",
       "orvel: Request failed: unacceptable content-type: text/plain\n"},
      {"image", 200, "image/png", ZRBValue::data(test_images::png(3, 2, 4)), 0,
       "image 3 x 2, 8 bits per component, colour-space model 1, 1 frame\n", ""},
      {"animated image", 200, "image/gif",
       ZRBValue::data(test_images::gif(2, 2, {{0, 0, 2, 2, 1, 10}, {0, 0, 1, 1, 2, 10}})), 0,
       "image 2 x 2, 8 bits per component, colour-space model 1, 2 frames\n", ""},
      {"an image that does not decode", 200, "image/png", ZRBValue::data("\x89PNG"), 22, "",
       "orvel: the image could not be decoded\n"},
      {"bad status", 404, "application/json", ZRBValue::data("[1]"), 22, "",
       "orvel: Request failed: not found (404)\n"},
      {"bad JSON", 200, "application/json", ZRBValue::data("[1,"), 22, "", ""},
      {"bad property list", 200, "application/x-plist", ZRBValue::data("<plist>"), 22, "", ""},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    Printed printed = decode(c.status, c.type, c.body);
    EXPECT_EQ(printed.status, c.exit);
    EXPECT_EQ(printed.out, c.out);
    if (c.exit != 0 && c.err.empty()) {
      EXPECT_TRUE(printed.err.starts_with("orvel: ")) << printed.err;  // the reader's own wording
    } else {
      EXPECT_EQ(printed.err, c.err);
    }
  }
}

}  // namespace
