// The XML parser: the events a delegate hears, namespaces, failures with their positions, and
// hostile documents (entity bombs, external entities, deep nesting, bad UTF-8).
#include "platform/foundation/xml_parser.h"

#include <expat.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

// Writes one line per event; text pieces are joined so that expat's chunking does not show.
class Recorder : public ZRBXMLParserDelegate {
 public:
  std::vector<std::string> events;
  std::string pendingText;
  std::function<void(ZRBXMLParser&)> onStartElement;

  void flush() {
    if (!pendingText.empty()) events.push_back("text " + pendingText);
    pendingText.clear();
  }
  void parserDidStartDocument(ZRBXMLParser&) override { events.push_back("start"); }
  void parserDidEndDocument(ZRBXMLParser&) override {
    flush();
    events.push_back("end");
  }
  void parserDidStartElement(ZRBXMLParser& parser, std::string_view name, std::optional<std::string_view> uri,
                             std::optional<std::string_view> qualified,
                             const ZRBXMLAttributes& attributes) override {
    flush();
    std::string line = "<" + std::string(name);
    if (uri) line += " uri=" + std::string(*uri);
    if (qualified) line += " q=" + std::string(*qualified);
    for (const auto& attribute : attributes)
      line += " @" + std::string(attribute.name) + "=" + std::string(attribute.value);
    events.push_back(line);
    if (onStartElement) onStartElement(parser);
  }
  void parserDidEndElement(ZRBXMLParser&, std::string_view name, std::optional<std::string_view>,
                           std::optional<std::string_view>) override {
    flush();
    events.push_back(">" + std::string(name));
  }
  void parserDidStartMappingPrefix(ZRBXMLParser&, std::string_view prefix, std::string_view uri) override {
    events.push_back("map " + std::string(prefix) + "=" + std::string(uri));
  }
  void parserDidEndMappingPrefix(ZRBXMLParser&, std::string_view prefix) override {
    events.push_back("unmap " + std::string(prefix));
  }
  void parserFoundCharacters(ZRBXMLParser&, std::string_view text) override { pendingText += text; }
  void parserFoundCDATA(ZRBXMLParser&, std::span<const std::uint8_t> block) override {
    flush();
    events.push_back("cdata " + std::string(block.begin(), block.end()));
  }
  void parserFoundComment(ZRBXMLParser&, std::string_view text) override {
    flush();
    events.push_back("comment" + std::string(text));
  }
  void parserFoundProcessingInstruction(ZRBXMLParser&, std::string_view target,
                                        std::string_view data) override {
    flush();
    events.push_back("pi " + std::string(target) + " " + std::string(data));
  }
  void parserParseErrorOccurred(ZRBXMLParser&, const ZRBErrorPtr& error) override {
    flush();
    events.push_back("error " + std::to_string(error->code()));
  }
};

struct Outcome {
  bool ok;
  std::vector<std::string> events;
  ZRBErrorPtr error;
};

Outcome parse(std::string_view document, bool namespaces = false, bool prefixes = false) {
  auto parser = ZRBXMLParser::parserWithData(ZRBValue::data(document));
  auto recorder = std::make_shared<Recorder>();
  parser->setDelegate(recorder);
  parser->setShouldProcessNamespaces(namespaces);
  parser->setShouldReportNamespacePrefixes(prefixes);
  bool ok = parser->parse();
  return {ok, recorder->events, parser->parserError()};
}

using Events = std::vector<std::string>;

TEST(XMLParser, ReportsEveryKindOfEventInOrder) {
  Outcome out = parse(
      "<?xml version=\"1.0\"?>\n<?style a=\"1\"?><list n=\"2\" kind='x &amp; y'><!-- c --><item>a&lt;b</item>"
      "<item><![CDATA[<raw>]]></item><empty/></list>");
  EXPECT_TRUE(out.ok);
  EXPECT_EQ(out.events,
            (Events{"start", "pi style a=\"1\"", "<list @n=2 @kind=x & y", "comment c ", "<item", "text a<b",
                    ">item", "<item", "cdata <raw>", ">item", "<empty", ">empty", ">list", "end"}));
  EXPECT_FALSE(out.error);
}

TEST(XMLParser, NamespacesAreResolvedOnlyWhenAskedFor) {
  const char* document = "<a:r xmlns:a=\"urn:a\" xmlns=\"urn:d\" a:k=\"1\" k=\"2\"><c/></a:r>";
  EXPECT_EQ(parse(document).events,
            (Events{"start", "<a:r @xmlns:a=urn:a @xmlns=urn:d @a:k=1 @k=2", "<c", ">c", ">a:r", "end"}));
  EXPECT_EQ(parse(document, true).events,
            (Events{"start", "<r uri=urn:a q=a:r @a:k=1 @k=2", "<c uri=urn:d q=c", ">c", ">r", "end"}));
  EXPECT_EQ(parse(document, true, true).events,
            (Events{"start", "map a=urn:a", "map =urn:d", "<r uri=urn:a q=a:r @a:k=1 @k=2",
                    "<c uri=urn:d q=c", ">c", ">r", "unmap ", "unmap a", "end"}));
  EXPECT_EQ(parse("<r xmlns:a=\"urn:a\"/>", false, true).events,
            (Events{"start", "<r @xmlns:a=urn:a", ">r", "end"}))
      << "prefixes are reported only with namespace processing";
}

TEST(XMLParser, FailuresCarryExpatsCodeAndThePosition) {
  struct Case {
    const char* name;
    std::string document;
    long code;
    long line, column;
  } cases[] = {
      {"mismatched tag", "<a>\n  <b></a>", XML_ERROR_TAG_MISMATCH, 2, 8},
      {"empty document", "", XML_ERROR_NO_ELEMENTS, 1, 1},
      {"truncated", "<a><b>", XML_ERROR_NO_ELEMENTS, 1, 7},
      {"invalid UTF-8", "<a>\xC3\x28</a>", XML_ERROR_INVALID_TOKEN, 1, 4},
      {"undeclared entity", "<a>&nope;</a>", XML_ERROR_UNDEFINED_ENTITY, 1, 4},
      {"junk after the root", "<a/><b/>", XML_ERROR_JUNK_AFTER_DOC_ELEMENT, 1, 5},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    Outcome out = parse(c.document);
    EXPECT_FALSE(out.ok);
    ASSERT_TRUE(out.error);
    EXPECT_EQ(out.error->domain(), ZRBXMLParserErrorDomain);
    EXPECT_EQ(out.error->code(), c.code);
    EXPECT_EQ(out.error->userInfo()[ZRBXMLParserErrorLineKey].intValue(), c.line);
    EXPECT_EQ(out.error->userInfo()[ZRBXMLParserErrorColumnKey].intValue(), c.column);
    EXPECT_EQ(out.events.back(), "error " + std::to_string(c.code)) << "the delegate hears it once, last";
    EXPECT_EQ(std::count(out.events.begin(), out.events.end(), "end"), 0);
  }
}

TEST(XMLParser, EntityBombsEndWithAnErrorAndExternalEntitiesAreNeverRead) {
  std::string bomb = "<?xml version=\"1.0\"?><!DOCTYPE l [<!ENTITY l0 \"laughlaughlaughlaugh\">";
  for (int i = 1; i <= 10; ++i) {
    bomb += "<!ENTITY l" + std::to_string(i) + " \"";
    for (int j = 0; j < 10; ++j) bomb += "&l" + std::to_string(i - 1) + ";";
    bomb += "\">";
  }
  bomb += "]><l>&l10;</l>";  // 2 * 10^11 bytes if expanded
  Outcome out = parse(bomb);
  EXPECT_FALSE(out.ok);
  ASSERT_TRUE(out.error);
  EXPECT_EQ(out.error->code(), XML_ERROR_AMPLIFICATION_LIMIT_BREACH);

  // A system entity and an external subset are skipped, not fetched (the port is closed anyway).
  out = parse(
      "<!DOCTYPE x SYSTEM \"http://127.0.0.1:9/x.dtd\" [<!ENTITY e SYSTEM \"file:///etc/passwd\">]>"
      "<x>a&e;b</x>");
  EXPECT_TRUE(out.ok) << (out.error ? out.error->description() : "");
  EXPECT_EQ(out.events, (Events{"start", "<x", "text ab", ">x", "end"}));
}

TEST(XMLParser, DeepNestingIsParsedWithoutRecursion) {
  constexpr std::size_t kDepth = 100000;
  std::string open;
  for (std::size_t i = 0; i < kDepth; ++i) open += "<d>";
  std::string document = open;
  for (std::size_t i = 0; i < kDepth; ++i) document += "</d>";
  Outcome out = parse(document);
  EXPECT_TRUE(out.ok);
  EXPECT_EQ(out.events.size(), 2 * kDepth + 2);  // every start and end, between the document's own
  Outcome unclosed = parse(open);
  ASSERT_TRUE(unclosed.error);
  EXPECT_EQ(unclosed.error->code(), XML_ERROR_NO_ELEMENTS);
}

TEST(XMLParser, AbortingRunningTwiceAndReaders) {
  auto parser = ZRBXMLParser::parserWithData(ZRBValue::data("<a><b/><c/></a>"));
  auto recorder = std::make_shared<Recorder>();
  recorder->onStartElement = [&](ZRBXMLParser& p) {
    if (recorder->events.back() == "<b") {
      p.abortParsing();
      EXPECT_FALSE(p.parse()) << "no second run from inside the first";
    }
  };
  parser->setDelegate(recorder);
  EXPECT_FALSE(parser->parse());
  EXPECT_EQ(recorder->events, (Events{"start", "<a", "<b", "error 512"}));
  EXPECT_EQ(parser->parserError()->code(), ZRBXMLParserDelegateAbortedParseError);
  EXPECT_EQ(parser->lineNumber(), 1);
  EXPECT_FALSE(parser->parse()) << "a parser runs once";
  auto finished = ZRBXMLParser::parserWithData(ZRBValue::data("<a>\n<b/>\n  </a>"));
  EXPECT_EQ(finished->lineNumber(), 0);
  EXPECT_TRUE(finished->parse());
  EXPECT_EQ(finished->lineNumber(), 3) << "where the document ended";
  EXPECT_EQ(finished->columnNumber(), 7);
  parser->abortParsing();  // outside a parse: nothing

  // A delegate's exception stops the parse and comes out of parse() rather than through expat.
  auto throwing = ZRBXMLParser::parserWithData(ZRBValue::data("<a><b/></a>"));
  auto thrower = std::make_shared<Recorder>();
  thrower->onStartElement = [](ZRBXMLParser&) { throw std::runtime_error("delegate"); };
  throwing->setDelegate(thrower);
  EXPECT_THROW(throwing->parse(), std::runtime_error);
  EXPECT_EQ(thrower->events, (Events{"start", "<a"}));

  // A reader handing over one byte at a time gives the same events as the bytes at once.
  std::string document = "<r a=\"1\">t\xC3\xA9xt<![CDATA[x]]></r>";
  std::size_t position = 0;
  auto reader = std::make_shared<ZRBXMLParser>([&](std::uint8_t* buffer, std::size_t) -> long {
    if (position == document.size()) return 0;
    buffer[0] = static_cast<std::uint8_t>(document[position++]);
    return 1;
  });
  auto readerRecorder = std::make_shared<Recorder>();
  reader->setDelegate(readerRecorder);
  EXPECT_TRUE(reader->parse());
  EXPECT_EQ(readerRecorder->events, parse(document).events);

  auto failing = std::make_shared<ZRBXMLParser>([](std::uint8_t*, std::size_t) -> long { return -1; });
  EXPECT_FALSE(failing->parse());
  EXPECT_EQ(failing->parserError()->code(), ZRBXMLParserReadError);

  // Without a delegate (or once it is gone) the document is still checked.
  auto lonely = ZRBXMLParser::parserWithData(ZRBValue::data("<a>"));
  {
    auto gone = std::make_shared<Recorder>();
    lonely->setDelegate(gone);
  }
  EXPECT_FALSE(lonely->parse());
  EXPECT_EQ(lonely->parserError()->code(), XML_ERROR_NO_ELEMENTS);
}

}  // namespace
