// ZRBXMLParser: an event-driven XML parser over expat, reporting to a delegate.
//
// A parser is made from bytes (or from a reader that hands them over in pieces) and does nothing
// until parse() runs it; it runs once, on the calling thread, and the delegate's operations are
// called from inside parse(). Element names:
//   - without namespace processing (the default): elementName is the name as written ("a:item"),
//     namespaceURI and qualifiedName are nullopt;
//   - with it: elementName is the local name, namespaceURI the resolved URI (nullopt when the name
//     is in no namespace) and qualifiedName the name as written; with shouldReportNamespacePrefixes
//     too, each xmlns declaration is reported before and after its element.
// Attributes are handed over as a view in document order, names as written.
//
// Safety: nothing outside the bytes is ever read. External entities and external DTD subsets are
// not fetched (references to them are skipped), and the expansion of internal entities is bounded
// by expat's amplification limits, so an entity bomb ends with an error instead of gigabytes.
// Nesting depth is limited only by memory (expat keeps its element stack on the heap).
//
// A parser is used by one thread at a time. Failures end the parse: parse() returns false, the delegate hears
// parseErrorOccurred once and parserError() holds a record in ZRBXMLParserErrorDomain whose code is expat's
// error code (or ZRBXMLParserDelegateAbortedParseError after abortParsing(), ZRBXMLParserReadError when the
// reader failed), with the line and column under ZRBXMLParserErrorLineKey and ZRBXMLParserErrorColumnKey.
// Lines and columns count from 1.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "platform/foundation/error.h"
#include "platform/foundation/object.h"
#include "platform/foundation/value.h"

inline constexpr std::string_view ZRBXMLParserErrorDomain = "ZRBXMLParserErrorDomain";
inline constexpr std::string_view ZRBXMLParserErrorLineKey = "ZRBXMLParserErrorLine";
inline constexpr std::string_view ZRBXMLParserErrorColumnKey = "ZRBXMLParserErrorColumn";
// The code of a parse stopped by abortParsing(), as the platform numbers it.
inline constexpr long ZRBXMLParserDelegateAbortedParseError = 512;
// The code of a parse whose reader failed (expat's own codes are all below it).
inline constexpr long ZRBXMLParserReadError = 513;

struct XML_ParserStruct;
class ZRBXMLParser;
using ZRBXMLParserPtr = std::shared_ptr<ZRBXMLParser>;

// The attributes of one element, valid only during the call that hands them over. Names and values
// are measured only when read, so a delegate that ignores them costs nothing.
class ZRBXMLAttributes {
 public:
  struct Attribute {
    std::string_view name;
    std::string_view value;
  };
  // Over (name, value) pairs already made.
  explicit ZRBXMLAttributes(std::span<const Attribute> attributes) : built_(attributes) {}
  // Over a null-terminated array of alternating names and values.
  explicit ZRBXMLAttributes(const char* const* pairs) : pairs_(pairs) {}

  class Iterator {
   public:
    using value_type = Attribute;
    using difference_type = std::ptrdiff_t;
    Attribute operator*() const { return owner_->at(index_); }
    Iterator& operator++() {
      ++index_;
      return *this;
    }
    bool operator==(const Iterator& other) const { return index_ == other.index_; }

   private:
    friend class ZRBXMLAttributes;
    Iterator(const ZRBXMLAttributes* owner, std::size_t index) : owner_(owner), index_(index) {}
    const ZRBXMLAttributes* owner_;
    std::size_t index_;
  };

  std::size_t count() const;
  Attribute at(std::size_t index) const;
  Iterator begin() const { return Iterator(this, 0); }
  Iterator end() const { return Iterator(this, count()); }
  std::optional<std::string_view> value(std::string_view name) const;
  // A dictionary of strings, in document order.
  ZRBValue dictionary() const;

 private:
  std::span<const Attribute> built_;
  const char* const* pairs_ = nullptr;
};

// Every operation is optional (empty by default). Texts are UTF-8 and valid only during the call.
class ZRBXMLParserDelegate {
 public:
  virtual ~ZRBXMLParserDelegate() = default;
  virtual void parserDidStartDocument(ZRBXMLParser& /*parser*/) {}
  virtual void parserDidEndDocument(ZRBXMLParser& /*parser*/) {}
  virtual void parserDidStartElement(ZRBXMLParser& /*parser*/, std::string_view /*elementName*/,
                                     std::optional<std::string_view> /*namespaceURI*/,
                                     std::optional<std::string_view> /*qualifiedName*/,
                                     const ZRBXMLAttributes& /*attributes*/) {}
  virtual void parserDidEndElement(ZRBXMLParser& /*parser*/, std::string_view /*elementName*/,
                                   std::optional<std::string_view> /*namespaceURI*/,
                                   std::optional<std::string_view> /*qualifiedName*/) {}
  // An empty prefix is the default namespace.
  virtual void parserDidStartMappingPrefix(ZRBXMLParser& /*parser*/, std::string_view /*prefix*/,
                                           std::string_view /*namespaceURI*/) {}
  virtual void parserDidEndMappingPrefix(ZRBXMLParser& /*parser*/, std::string_view /*prefix*/) {}
  // Text may arrive in several pieces.
  virtual void parserFoundCharacters(ZRBXMLParser& /*parser*/, std::string_view /*characters*/) {}
  // The contents of one CDATA section, whole.
  virtual void parserFoundCDATA(ZRBXMLParser& /*parser*/, std::span<const std::uint8_t> /*block*/) {}
  virtual void parserFoundComment(ZRBXMLParser& /*parser*/, std::string_view /*comment*/) {}
  virtual void parserFoundProcessingInstruction(ZRBXMLParser& /*parser*/, std::string_view /*target*/,
                                                std::string_view /*data*/) {}
  virtual void parserParseErrorOccurred(ZRBXMLParser& /*parser*/, const ZRBErrorPtr& /*parseError*/) {}
};

class ZRBXMLParser final : public ZRBObject {
 public:
  // Reads up to `capacity` bytes into `buffer`: the count, 0 at the end, -1 on failure.
  using Reader = std::function<long(std::uint8_t* buffer, std::size_t capacity)>;

  // Over a data value (shared, not copied); any other kind is an empty document.
  explicit ZRBXMLParser(ZRBValue data);
  explicit ZRBXMLParser(Reader reader);
  static ZRBXMLParserPtr parserWithData(ZRBValue data) {
    return std::make_shared<ZRBXMLParser>(std::move(data));
  }

  // Held weakly, as the platform's parser does; taken for the whole of parse().
  std::shared_ptr<ZRBXMLParserDelegate> delegate() const { return delegate_.lock(); }
  void setDelegate(const std::shared_ptr<ZRBXMLParserDelegate>& delegate) { delegate_ = delegate; }

  bool shouldProcessNamespaces() const { return processNamespaces_; }
  void setShouldProcessNamespaces(bool value) { processNamespaces_ = value; }
  bool shouldReportNamespacePrefixes() const { return reportPrefixes_; }
  void setShouldReportNamespacePrefixes(bool value) { reportPrefixes_ = value; }
  // External entities are never resolved; the switch exists for callers that set it and is ignored.
  bool shouldResolveExternalEntities() const { return false; }
  void setShouldResolveExternalEntities(bool) {}

  // Runs the document: true when it was well formed and nobody aborted. A parser runs once; later
  // calls (and calls from inside a delegate operation) return false and report nothing. An
  // exception thrown by a delegate operation stops the parse and leaves parse() as it is.
  bool parse();
  // From a delegate operation: stops the parse, which then fails with
  // ZRBXMLParserDelegateAbortedParseError. Outside a parse it does nothing.
  void abortParsing();
  // The error that ended the last parse; null after a successful one or before any.
  ZRBErrorPtr parserError() const { return error_; }

  // Where the parse is (inside a delegate operation) or where it stopped; 0 before parse().
  // Expat finds a position by scanning what it has read, so after a successful parse it is worked
  // out only when first asked for.
  long lineNumber() const;
  long columnNumber() const;

  std::string className() const override { return "ZRBXMLParser"; }

 private:
  struct Run;
  friend struct Run;
  struct ExpatParserFree {
    void operator()(XML_ParserStruct* parser) const;
  };
  using ExpatParser = std::unique_ptr<XML_ParserStruct, ExpatParserFree>;
  // Reads the finished parser's position into line_ and column_ and lets the parser go.
  void settlePosition() const;

  ZRBValue data_;
  Reader reader_;
  std::weak_ptr<ZRBXMLParserDelegate> delegate_;
  bool processNamespaces_ = false;
  bool reportPrefixes_ = false;
  bool started_ = false;
  Run* run_ = nullptr;            // the parse in progress
  mutable ExpatParser finished_;  // after a successful parse, until its position is read
  mutable long line_ = 0;
  mutable long column_ = 0;
  ZRBErrorPtr error_;
};
