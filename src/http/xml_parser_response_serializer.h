// ZRBHS_XMLParserResponseSerializer: validates a response and hands back an XML parser over its body.
//
// Accepts "application/xml" and "text/xml" by default. After the common guard
// (response_serializer.h) the result is a ZRBXMLParser (as an object value) made from the body and
// not yet run: running it, with a delegate of the caller's, is the caller's business. No body at
// all gives a parser over an empty document.
#pragma once

#include <memory>

#include "http/response_serializer.h"
#include "platform/foundation/xml_parser.h"

class ZRBHS_XMLParserResponseSerializer;
using ZRBHS_XMLParserResponseSerializerPtr = std::shared_ptr<ZRBHS_XMLParserResponseSerializer>;

class ZRBHS_XMLParserResponseSerializer : public ZRBHS_HTTPResponseSerializer {
 public:
  ZRBHS_XMLParserResponseSerializer();
  static ZRBHS_XMLParserResponseSerializerPtr serializer();

  ZRBValue responseObjectForResponse(const ZRBURLResponsePtr& response, const ZRBValue& data,
                                     ZRBErrorPtr* error = nullptr) override;

  ZRBHS_HTTPResponseSerializerPtr copy() const override;

  std::string codingClassName() const override { return "ZRBHS_XMLParserResponseSerializer"; }
  static ZRBHS_XMLParserResponseSerializerPtr initWithCoder(ZRBKeyedUnarchiver& coder);

  std::string className() const override { return "ZRBHS_XMLParserResponseSerializer"; }
};
