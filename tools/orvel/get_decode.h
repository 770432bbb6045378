// `orvel get --decode`: the body as the library's response serializers would hand it to a request's
// callback. The response's Content-Type picks the decoder through a compound serializer of the
// JSON, XML parser, property-list and image serializers, which accepts their content types and
// status codes 200 to 299.
//
// Output: JSON and property lists as indented JSON (data as base64 strings, dates as their
// description); XML as the events the parser reports, one a line:
//   start document | start element NAME [name="value"...] | characters "TEXT" | cdata "TEXT" |
//   comment "TEXT" | processing instruction TARGET "DATA" | end element NAME | end document
// (texts JSON-quoted; runs of text that are only whitespace are left out); an image as one line,
//   image WIDTH x HEIGHT, BITS bits per component, colour-space model MODEL, COUNT frame[s]
// (as decoded and inflated: model 0 grey, 1 RGB, 2 CMYK). An empty body prints nothing.
//
// A body the serializers refuse (content type, status code, a parse error) prints
// "orvel: DESCRIPTION" on standard error and gives 22; so does an image that does not decode
// ("orvel: the image could not be decoded").
#pragma once

#include <cstdio>

#include "http/compound_response_serializer.h"

ZRBHS_CompoundResponseSerializerPtr orvelDecodingSerializer();

// Prints the decoded body on `out` (problems on `err`); 0, or 22 for a refused body.
int orvelPrintDecodedBody(const ZRBURLResponsePtr& response, const ZRBValue& body, std::FILE* out,
                          std::FILE* err);
