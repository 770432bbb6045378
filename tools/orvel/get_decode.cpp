#include "get_decode.h"

#include <string>
#include <vector>

#include "http/image_response_serializer.h"
#include "http/json_response_serializer.h"
#include "http/property_list_response_serializer.h"
#include "http/xml_parser_response_serializer.h"
#include "platform/foundation/crypto.h"
#include "platform/foundation/json_serialization.h"

namespace {

constexpr auto kQuoteOptions = ZRBJSONWritingFragmentsAllowed | ZRBJSONWritingWithoutEscapingSlashes;

std::string quoted(std::string_view text) {
  return ZRBJSONSerialization::stringWithJSONObject(ZRBValue(text), kQuoteOptions).value_or("\"\"");
}

// Property lists hold data and dates, which JSON cannot: they are written as strings.
ZRBValue jsonCompatible(const ZRBValue& value) {
  switch (value.kind()) {
    case ZRBValueKind::Data: return ZRBValue(ZRBBase64Encode(value.bytes()));
    case ZRBValueKind::Date: return ZRBValue(value.dateValue().description());
    case ZRBValueKind::Array: {
      std::vector<ZRBValue> items;
      for (const ZRBValue& item : value.items()) items.push_back(jsonCompatible(item));
      return ZRBValue::array(std::move(items));
    }
    case ZRBValueKind::Dictionary: {
      std::vector<ZRBDictionaryEntry> entries;
      for (const auto& [key, item] : value.entries()) entries.emplace_back(key, jsonCompatible(item));
      return ZRBValue::dictionary(std::move(entries));
    }
    default: return value;
  }
}

class EventPrinter final : public ZRBXMLParserDelegate {
 public:
  explicit EventPrinter(std::FILE* out) : out_(out) {}

  void parserDidStartDocument(ZRBXMLParser&) override { line("start document"); }
  void parserDidEndDocument(ZRBXMLParser&) override {
    flushText();
    line("end document");
  }
  void parserDidStartElement(ZRBXMLParser&, std::string_view name, std::optional<std::string_view>,
                             std::optional<std::string_view>, const ZRBXMLAttributes& attributes) override {
    flushText();
    std::string text = "start element " + std::string(name);
    for (const auto& attribute : attributes)
      text += " " + std::string(attribute.name) + "=" + quoted(attribute.value);
    line(text);
  }
  void parserDidEndElement(ZRBXMLParser&, std::string_view name, std::optional<std::string_view>,
                           std::optional<std::string_view>) override {
    flushText();
    line("end element " + std::string(name));
  }
  void parserFoundCharacters(ZRBXMLParser&, std::string_view characters) override { text_ += characters; }
  void parserFoundCDATA(ZRBXMLParser&, std::span<const std::uint8_t> block) override {
    flushText();
    line("cdata " + quoted(std::string_view(reinterpret_cast<const char*>(block.data()), block.size())));
  }
  void parserFoundComment(ZRBXMLParser&, std::string_view comment) override {
    flushText();
    line("comment " + quoted(comment));
  }
  void parserFoundProcessingInstruction(ZRBXMLParser&, std::string_view target,
                                        std::string_view data) override {
    flushText();
    line("processing instruction " + std::string(target) + " " + quoted(data));
  }
  void parserParseErrorOccurred(ZRBXMLParser&, const ZRBErrorPtr&) override { flushText(); }

 private:
  void line(const std::string& text) { std::fprintf(out_, "%s\n", text.c_str()); }
  // Text arrives in pieces; one line per run between markup.
  void flushText() {
    if (text_.find_first_not_of(" \t\r\n") != std::string::npos) line("characters " + quoted(text_));
    text_.clear();
  }

  std::FILE* out_;
  std::string text_;
};

// The description, and where the reader says more about what it met, that too.
int refuse(const ZRBErrorPtr& error, std::FILE* err) {
  std::string message = error->localizedDescription();
  if (auto detail = error->userInfo()[ZRBDebugDescriptionErrorKey].optionalString())
    message += " (" + *detail + ")";
  std::fprintf(err, "orvel: %s\n", message.c_str());
  return 22;
}

}  // namespace

ZRBHS_CompoundResponseSerializerPtr orvelDecodingSerializer() {
  ZRBHS_CompoundResponseSerializer::Serializers serializers = {
      ZRBHS_JSONResponseSerializer::serializer(), ZRBHS_XMLParserResponseSerializer::serializer(),
      ZRBHS_PropertyListResponseSerializer::serializer(), ZRBHS_ImageResponseSerializer::serializer()};
  ZRBHS_HTTPResponseSerializer::ContentTypes types;
  for (const auto& serializer : serializers) types.merge(*serializer->acceptableContentTypes());
  auto compound =
      ZRBHS_CompoundResponseSerializer::compoundSerializerWithResponseSerializers(std::move(serializers));
  compound->setAcceptableContentTypes(std::move(types));
  return compound;
}

int orvelPrintDecodedBody(const ZRBURLResponsePtr& response, const ZRBValue& body, std::FILE* out,
                          std::FILE* err) {
  auto compound = orvelDecodingSerializer();
  ZRBErrorPtr error;
  ZRBValue object = compound->responseObjectForResponse(response, body, &error);
  if (error) return refuse(error, err);

  if (auto parser = object.objectAs<ZRBXMLParser>()) {
    // Nothing to parse is nothing to print (a 204 without a type reaches the XML decoder too).
    if (body.bytes().empty()) return 0;
    auto printer = std::make_shared<EventPrinter>(out);
    parser->setDelegate(printer);
    if (parser->parse()) return 0;
    ZRBErrorPtr parseError = parser->parserError();
    std::fflush(out);
    std::fprintf(err, "orvel: %s (line %ld, column %ld)\n", parseError->localizedDescription().c_str(),
                 parser->lineNumber(), parser->columnNumber());
    return 22;
  }
  if (auto image = object.objectAs<ZRBImage>()) {
    std::fprintf(out, "image %zu x %zu, %zu bits per component, colour-space model %d, %zu frame%s\n",
                 image->width(), image->height(), image->bitsPerComponent(),
                 static_cast<int>(image->colorSpaceModel()), image->frameCount(),
                 image->frameCount() == 1 ? "" : "s");
    return 0;
  }
  if (object.isData() && object.storageIdentity() == body.storageIdentity()) {
    // The body came back as it is: no decoder took it although its type is one of theirs. The one
    // whose type it is says why (the compound keeps only a winner's error); an empty JSON body has
    // no error and no output.
    for (const auto& serializer : compound->responseSerializers()) {
      ZRBErrorPtr serializerError;
      serializer->responseObjectForResponse(response, body, &serializerError);
      if (serializerError &&
          !KVHSErrorOrUnderlyingErrorHasCodeInDomain(serializerError, ZRBURLErrorCannotDecodeContentData,
                                                     ZRBHS_ResponseSerializationErrorDomain)) {
        return refuse(serializerError, err);
      }
    }
    // An image that does not decode has no error of its own.
    const auto mimeType = response ? response->MIMEType() : std::nullopt;
    if (!body.bytes().empty() && mimeType &&
        ZRBHS_ImageResponseSerializer::serializer()->acceptableContentTypes()->contains(*mimeType)) {
      std::fprintf(err, "orvel: the image could not be decoded\n");
      return 22;
    }
    return 0;
  }
  if (object.isAbsent()) return 0;

  auto text = ZRBJSONSerialization::stringWithJSONObject(jsonCompatible(object),
                                                         ZRBJSONWritingPrettyPrinted | kQuoteOptions, &error);
  if (!text) return refuse(error, err);
  std::fprintf(out, "%s\n", text->c_str());
  return 0;
}
