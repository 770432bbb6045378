#include "http/xml_parser_response_serializer.h"

ZRB_REGISTER_CODING_CLASS(ZRBHS_XMLParserResponseSerializer);

ZRBHS_XMLParserResponseSerializer::ZRBHS_XMLParserResponseSerializer() {
  setAcceptableContentTypes(ContentTypes{"application/xml", "text/xml"});
}

ZRBHS_XMLParserResponseSerializerPtr ZRBHS_XMLParserResponseSerializer::serializer() {
  return std::make_shared<ZRBHS_XMLParserResponseSerializer>();
}

ZRBValue ZRBHS_XMLParserResponseSerializer::responseObjectForResponse(const ZRBURLResponsePtr& response,
                                                                      const ZRBValue& data,
                                                                      ZRBErrorPtr* error) {
  if (!guardResponse(response, data, error)) return ZRBValue();
  return ZRBValue(ZRBXMLParser::parserWithData(data));
}

ZRBHS_HTTPResponseSerializerPtr ZRBHS_XMLParserResponseSerializer::copy() const {
  auto fresh = std::make_shared<ZRBHS_XMLParserResponseSerializer>();
  copyStateInto(*fresh);
  return fresh;
}

ZRBHS_XMLParserResponseSerializerPtr ZRBHS_XMLParserResponseSerializer::initWithCoder(
    ZRBKeyedUnarchiver& coder) {
  auto serializer = std::make_shared<ZRBHS_XMLParserResponseSerializer>();
  serializer->decodeStateFrom(coder);
  return serializer;
}
