// ZRBHS_JSONRequestSerializer: a request serializer that writes the parameters of body methods as
// a JSON body.
//
// Methods that encode parameters in the URI (GET, HEAD, DELETE by default) are serialized exactly
// as the base serializer does. For the others the default headers are added, and, only when there
// are parameters, "Content-Type" becomes "application/json" (unless the request has one) and the
// body is the JSON text written with writingOptions(). A writer failure is left in *error and the
// request is still returned, without a body; absent parameters leave the body as it is.
#pragma once

#include <atomic>
#include <memory>

#include "http/request_serializer.h"
#include "platform/foundation/json_serialization.h"

class ZRBHS_JSONRequestSerializer;
using ZRBHS_JSONRequestSerializerPtr = std::shared_ptr<ZRBHS_JSONRequestSerializer>;

class ZRBHS_JSONRequestSerializer : public ZRBHS_HTTPRequestSerializer {
 public:
  ZRBHS_JSONRequestSerializer() = default;
  // serializerWithWritingOptions(0).
  static ZRBHS_JSONRequestSerializerPtr serializer();
  static ZRBHS_JSONRequestSerializerPtr serializerWithWritingOptions(ZRBJSONWritingOptions writingOptions);

  ZRBJSONWritingOptions writingOptions() const { return writingOptions_.load(std::memory_order_relaxed); }
  void setWritingOptions(ZRBJSONWritingOptions writingOptions) {
    writingOptions_.store(writingOptions, std::memory_order_relaxed);
  }

  ZRBURLRequestPtr requestBySerializingRequest(const ZRBURLRequestPtr& request, const ZRBValue& parameters,
                                               ZRBErrorPtr* error = nullptr) override;

  // Carries writingOptions() too.
  ZRBHS_HTTPRequestSerializerPtr copy() const override;

  // Adds "writingOptions" (integer).
  void encodeWithCoder(ZRBKeyedArchiver& coder) const override;
  std::string codingClassName() const override { return "ZRBHS_JSONRequestSerializer"; }
  static ZRBHS_JSONRequestSerializerPtr initWithCoder(ZRBKeyedUnarchiver& coder);

  std::string className() const override { return "ZRBHS_JSONRequestSerializer"; }

 private:
  std::atomic<ZRBJSONWritingOptions> writingOptions_{};
};
