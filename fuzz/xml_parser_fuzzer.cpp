// Fuzzes ZRBXMLParser. The first byte picks the switches (namespaces, prefixes, abort after N
// elements); the rest is the document. A parse must end, succeed or fail with an error record that
// the delegate heard exactly once, keep elements balanced on success, and never report an event
// after an abort.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>

#include "platform/foundation/xml_parser.h"

namespace {

void check(bool condition, const char* what) {
  if (condition) return;
  std::fprintf(stderr, "xml parser fuzzer: %s\n", what);
  std::abort();
}

class Checker final : public ZRBXMLParserDelegate {
 public:
  long depth = 0;
  long elements = 0;
  long abortAfter = -1;
  int errors = 0;
  bool aborted = false;
  bool ended = false;

  void event() { check(!aborted, "an event after abortParsing"); }
  void parserDidEndDocument(ZRBXMLParser&) override {
    event();
    ended = true;
  }
  void parserDidStartElement(ZRBXMLParser& parser, std::string_view name, std::optional<std::string_view> uri,
                             std::optional<std::string_view> qualified,
                             const ZRBXMLAttributes& attributes) override {
    event();
    check(!name.empty(), "an element without a name");
    check(uri.has_value() <= qualified.has_value(), "a namespace without a qualified name");
    for (const auto& attribute : attributes) check(!attribute.name.empty(), "an attribute without a name");
    (void)attributes.dictionary();
    ++depth;
    if (++elements == abortAfter) {
      aborted = true;
      parser.abortParsing();
    }
  }
  void parserDidEndElement(ZRBXMLParser&, std::string_view, std::optional<std::string_view>,
                           std::optional<std::string_view>) override {
    event();
    --depth;
    check(depth >= 0, "more ends than starts");
  }
  void parserFoundCharacters(ZRBXMLParser&, std::string_view) override { event(); }
  void parserFoundCDATA(ZRBXMLParser&, std::span<const std::uint8_t>) override { event(); }
  void parserFoundComment(ZRBXMLParser&, std::string_view) override { event(); }
  void parserFoundProcessingInstruction(ZRBXMLParser&, std::string_view, std::string_view) override {
    event();
  }
  void parserParseErrorOccurred(ZRBXMLParser&, const ZRBErrorPtr& error) override {
    check(error != nullptr, "a null parse error");
    ++errors;
  }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  const std::uint8_t switches = data[0];
  auto parser = ZRBXMLParser::parserWithData(ZRBValue::data(data + 1, size - 1));
  auto checker = std::make_shared<Checker>();
  parser->setDelegate(checker);
  parser->setShouldProcessNamespaces(switches & 1);
  parser->setShouldReportNamespacePrefixes(switches & 2);
  if (switches & 4) checker->abortAfter = switches >> 3;

  bool ok = parser->parse();
  check(ok == checker->ended, "success without the end of the document, or the reverse");
  check(ok == (parser->parserError() == nullptr), "the outcome and the error disagree");
  check(checker->errors == (ok ? 0 : 1), "the delegate did not hear the failure exactly once");
  if (ok) check(checker->depth == 0, "unbalanced elements in a well-formed document");
  if (checker->aborted)
    check(parser->parserError()->code() == ZRBXMLParserDelegateAbortedParseError, "abort code");
  check(!parser->parse(), "a second run");
  return 0;
}
