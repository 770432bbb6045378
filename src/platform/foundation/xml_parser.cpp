#include "platform/foundation/xml_parser.h"

// Debian's expat is built with DTD support (that is what makes entity expansion, and its limits,
// exist at all); the declarations of the limits are behind this switch.
#ifndef XML_DTD
#define XML_DTD
#endif
#include <expat.h>

#include <algorithm>
#include <climits>
#include <exception>
#include <utility>
#include <vector>

namespace {

// Separates URI, local name and prefix in the names expat reports with namespace processing on; it
// cannot occur in a name or a URI of a well-formed document.
constexpr char kNamespaceSeparator = '\x01';
// Entity expansion may produce at most this many times the input's size once past the threshold.
constexpr float kMaximumAmplification = 100.0f;
constexpr unsigned long long kAmplificationThreshold = 8ull << 20;
// Pieces handed to expat: a reader's buffer, and the most of a data value given at once.
constexpr int kReadSize = 64 << 10;
constexpr std::size_t kDataChunk = std::size_t{1} << 30;

// A name as expat reports it with namespace processing: "uri\1local\1prefix", "uri\1local" or
// "local".
struct SplitName {
  std::optional<std::string_view> uri;
  std::string_view local;
  std::string_view prefix;
};

SplitName splitName(std::string_view name) {
  SplitName split;
  std::size_t first = name.find(kNamespaceSeparator);
  if (first == std::string_view::npos) {
    split.local = name;
    return split;
  }
  split.uri = name.substr(0, first);
  std::string_view rest = name.substr(first + 1);
  std::size_t second = rest.find(kNamespaceSeparator);
  split.local = rest.substr(0, second);
  if (second != std::string_view::npos) split.prefix = rest.substr(second + 1);
  return split;
}

}  // namespace

std::size_t ZRBXMLAttributes::count() const {
  if (!pairs_) return built_.size();
  std::size_t n = 0;
  while (pairs_[2 * n]) ++n;
  return n;
}

ZRBXMLAttributes::Attribute ZRBXMLAttributes::at(std::size_t index) const {
  if (!pairs_) return built_[index];
  return {pairs_[2 * index], pairs_[2 * index + 1]};
}

std::optional<std::string_view> ZRBXMLAttributes::value(std::string_view name) const {
  for (Attribute attribute : *this) {
    if (attribute.name == name) return attribute.value;
  }
  return std::nullopt;
}

ZRBValue ZRBXMLAttributes::dictionary() const {
  ZRBDictionaryBuilder builder;
  for (Attribute attribute : *this) builder.append(ZRBValue(attribute.name), ZRBValue(attribute.value));
  return builder.build();
}

struct ZRBXMLParser::Run {
  ZRBXMLParser& owner;
  ZRBXMLParserDelegate* delegate;
  XML_Parser parser;
  // Expat may still deliver an event after a stop (the end of an empty element); the delegate
  // hears nothing once it has asked to stop.
  bool aborted = false;
  bool inCDATA = false;
  std::string cdata;
  std::vector<ZRBXMLAttributes::Attribute> attributes;  // reused from element to element
  std::vector<std::string> qualifiedNames;              // namespaced attribute names, rebuilt
  // The lengths of the open elements' names: an end tag names the same string as its start tag.
  std::vector<std::size_t> nameLengths;

  // What a delegate operation threw: the parse stops and parse() rethrows it.
  std::exception_ptr thrown;

  static Run& of(void* userData) { return *static_cast<Run*>(userData); }

  // Runs a handler's body unless the parse is stopping, and turns an exception from the delegate
  // into a stop: it must not unwind through expat.
  template <typename Body>
  static void guarded(void* userData, Body&& body) {
    Run& run = of(userData);
    if (run.aborted) return;
    try {
      body(run);
    } catch (...) {
      run.thrown = std::current_exception();
      run.aborted = true;
      XML_StopParser(run.parser, XML_FALSE);
    }
  }

  static void startElement(void* userData, const XML_Char* name, const XML_Char** atts) {
    guarded(userData, [&](Run& run) {
      if (!run.owner.processNamespaces_) {
        std::string_view elementName(name);
        run.nameLengths.push_back(elementName.size());
        run.delegate->parserDidStartElement(run.owner, elementName, std::nullopt, std::nullopt,
                                            ZRBXMLAttributes(atts));
        return;
      }
      run.attributes.clear();
      run.qualifiedNames.clear();
      for (const XML_Char** a = atts; *a; a += 2) {
        SplitName split = splitName(a[0]);
        if (split.prefix.empty()) {
          run.attributes.push_back({split.local, a[1]});
        } else {
          run.qualifiedNames.emplace_back(split.prefix).append(":").append(split.local);
          run.attributes.push_back({{}, a[1]});
        }
      }
      // Names of prefixed attributes point into qualifiedNames only once it has stopped growing.
      std::size_t nextQualified = 0;
      for (std::size_t i = 0; i < run.attributes.size(); ++i) {
        if (run.attributes[i].name.empty()) run.attributes[i].name = run.qualifiedNames[nextQualified++];
      }
      SplitName split = splitName(name);
      std::string qualified = qualifiedName(split);
      run.delegate->parserDidStartElement(run.owner, split.local, split.uri, qualified,
                                          ZRBXMLAttributes(run.attributes));
    });
  }

  static void endElement(void* userData, const XML_Char* name) {
    guarded(userData, [&](Run& run) {
      if (!run.owner.processNamespaces_) {
        std::size_t length = run.nameLengths.back();
        run.nameLengths.pop_back();
        run.delegate->parserDidEndElement(run.owner, std::string_view(name, length), std::nullopt,
                                          std::nullopt);
        return;
      }
      SplitName split = splitName(name);
      std::string qualified = qualifiedName(split);
      run.delegate->parserDidEndElement(run.owner, split.local, split.uri, qualified);
    });
  }

  static std::string qualifiedName(const SplitName& split) {
    std::string qualified;
    if (!split.prefix.empty()) qualified.append(split.prefix).append(":");
    qualified.append(split.local);
    return qualified;
  }

  static void characters(void* userData, const XML_Char* text, int length) {
    guarded(userData, [&](Run& run) {
      if (run.inCDATA) {
        run.cdata.append(text, static_cast<std::size_t>(length));
      } else {
        run.delegate->parserFoundCharacters(run.owner,
                                            std::string_view(text, static_cast<std::size_t>(length)));
      }
    });
  }

  static void startCDATA(void* userData) {
    guarded(userData, [&](Run& run) {
      run.inCDATA = true;
      run.cdata.clear();
    });
  }

  static void endCDATA(void* userData) {
    guarded(userData, [&](Run& run) {
      run.inCDATA = false;
      const auto* bytes = reinterpret_cast<const std::uint8_t*>(run.cdata.data());
      run.delegate->parserFoundCDATA(run.owner, std::span<const std::uint8_t>(bytes, run.cdata.size()));
    });
  }

  static void comment(void* userData, const XML_Char* text) {
    guarded(userData, [&](Run& run) { run.delegate->parserFoundComment(run.owner, text); });
  }

  static void processingInstruction(void* userData, const XML_Char* target, const XML_Char* data) {
    guarded(userData, [&](Run& run) {
      run.delegate->parserFoundProcessingInstruction(run.owner, target, data ? data : "");
    });
  }

  static void startNamespace(void* userData, const XML_Char* prefix, const XML_Char* uri) {
    guarded(userData, [&](Run& run) {
      run.delegate->parserDidStartMappingPrefix(run.owner, prefix ? prefix : "", uri ? uri : "");
    });
  }

  static void endNamespace(void* userData, const XML_Char* prefix) {
    guarded(userData,
            [&](Run& run) { run.delegate->parserDidEndMappingPrefix(run.owner, prefix ? prefix : ""); });
  }
};

ZRBXMLParser::ZRBXMLParser(ZRBValue data) : data_(std::move(data)) {}

ZRBXMLParser::ZRBXMLParser(Reader reader) : reader_(std::move(reader)) {}

bool ZRBXMLParser::parse() {
  if (started_) return false;
  started_ = true;
  std::shared_ptr<ZRBXMLParserDelegate> delegate = delegate_.lock();
  ZRBXMLParserDelegate ignoring;

  ExpatParser parser(processNamespaces_ ? XML_ParserCreateNS(nullptr, kNamespaceSeparator)
                                        : XML_ParserCreate(nullptr));
  if (!parser) {
    error_ = ZRBError::withDescription(ZRBXMLParserErrorDomain, XML_ERROR_NO_MEMORY,
                                       XML_ErrorString(XML_ERROR_NO_MEMORY));
    return false;
  }
  XML_Parser p = parser.get();
  Run run{*this, delegate ? delegate.get() : &ignoring, p, false, false, {}, {}, {}, {}, {}};
  XML_SetUserData(p, &run);
  // Nothing outside the document is read: no parameter entities, no external subset, no external
  // entity handler (expat then skips references to external entities).
  XML_SetParamEntityParsing(p, XML_PARAM_ENTITY_PARSING_NEVER);
  XML_SetBillionLaughsAttackProtectionMaximumAmplification(p, kMaximumAmplification);
  XML_SetBillionLaughsAttackProtectionActivationThreshold(p, kAmplificationThreshold);
  if (processNamespaces_) XML_SetReturnNSTriplet(p, XML_TRUE);
  if (delegate) {
    XML_SetElementHandler(p, Run::startElement, Run::endElement);
    XML_SetCharacterDataHandler(p, Run::characters);
    XML_SetCdataSectionHandler(p, Run::startCDATA, Run::endCDATA);
    XML_SetCommentHandler(p, Run::comment);
    XML_SetProcessingInstructionHandler(p, Run::processingInstruction);
    if (processNamespaces_ && reportPrefixes_) {
      XML_SetNamespaceDeclHandler(p, Run::startNamespace, Run::endNamespace);
    }
  }

  run_ = &run;
  struct Clear {
    ZRBXMLParser& parser;
    ~Clear() { parser.run_ = nullptr; }
  } clear{*this};

  run.delegate->parserDidStartDocument(*this);
  XML_Status status = XML_STATUS_OK;
  bool readFailed = false;
  if (reader_) {
    for (;;) {
      void* buffer = XML_GetBuffer(p, kReadSize);
      if (!buffer) {
        status = XML_STATUS_ERROR;
        break;
      }
      long got = reader_(static_cast<std::uint8_t*>(buffer), kReadSize);
      if (got < 0) {
        readFailed = true;
        break;
      }
      status = XML_ParseBuffer(p, static_cast<int>(std::min<long>(got, kReadSize)), got == 0);
      if (status != XML_STATUS_OK || got == 0) break;
    }
  } else {
    std::span<const std::uint8_t> bytes = data_.bytes();
    do {
      std::size_t piece = std::min(bytes.size(), kDataChunk);
      status = XML_Parse(p, reinterpret_cast<const char*>(bytes.data()), static_cast<int>(piece),
                         piece == bytes.size());
      bytes = bytes.subspan(piece);
    } while (status == XML_STATUS_OK && !bytes.empty());
  }

  if (run.thrown) std::rethrow_exception(run.thrown);
  if (status == XML_STATUS_OK && !readFailed) {
    finished_ = std::move(parser);
    run.delegate->parserDidEndDocument(*this);
    return true;
  }
  line_ = static_cast<long>(XML_GetCurrentLineNumber(p));
  column_ = static_cast<long>(XML_GetCurrentColumnNumber(p)) + 1;

  long code = run.aborted  ? ZRBXMLParserDelegateAbortedParseError
              : readFailed ? ZRBXMLParserReadError
                           : static_cast<long>(XML_GetErrorCode(p));
  std::string description = run.aborted  ? "The parse was aborted by its delegate."
                            : readFailed ? "The document could not be read."
                                         : XML_ErrorString(XML_GetErrorCode(p));
  error_ = ZRBError::make(ZRBXMLParserErrorDomain, code,
                          ZRBValue::dictionary({{ZRBLocalizedDescriptionKey, ZRBValue(description)},
                                                {ZRBXMLParserErrorLineKey, line_},
                                                {ZRBXMLParserErrorColumnKey, column_}}));
  run.delegate->parserParseErrorOccurred(*this, error_);
  return false;
}

void ZRBXMLParser::abortParsing() {
  if (!run_ || run_->aborted) return;
  run_->aborted = true;
  XML_StopParser(run_->parser, XML_FALSE);
}

void ZRBXMLParser::ExpatParserFree::operator()(XML_ParserStruct* parser) const { XML_ParserFree(parser); }

void ZRBXMLParser::settlePosition() const {
  if (!finished_) return;
  line_ = static_cast<long>(XML_GetCurrentLineNumber(finished_.get()));
  column_ = static_cast<long>(XML_GetCurrentColumnNumber(finished_.get())) + 1;
  finished_.reset();
}

long ZRBXMLParser::lineNumber() const {
  if (run_) return static_cast<long>(XML_GetCurrentLineNumber(run_->parser));
  settlePosition();
  return line_;
}

long ZRBXMLParser::columnNumber() const {
  if (run_) return static_cast<long>(XML_GetCurrentColumnNumber(run_->parser)) + 1;
  settlePosition();
  return column_;
}
