// ZRBHS_ImageResponseSerializer: validates a response and decodes its body into a ZRBImage.
//
// Accepts the TIFF, JPEG, GIF, PNG, icon and BMP content types by default. After the common guard
// (response_serializer.h) the body is decoded at imageScale() (the main screen's scale when made),
// and, with automaticallyInflatesResponseImage() (on by default), drawn once into a bitmap of the
// layout a screen draws fastest, so that the first display does not pay for it.
//
// Decoding always goes through ZRBHS_safeImageWithData: one process-wide lock lets only one image
// decode run at a time. Inflation (ZRBHS_InflatedImageFromResponseWithDataAtScale) runs after it,
// without the lock:
//   - a PNG ("image/png") or JPEG ("image/jpeg") response gives its bitmap; a CMYK JPEG's is
//     dropped; other types, and PNG or JPEG bodies that do not decode as such, take a copy of the
//     plain image's bitmap, and an animated or undecodable image comes back as it is;
//   - images of more than 1,048,576 pixels or more than 8 bits per component come back plain;
//   - RGB bitmaps are drawn with their alpha info rewritten: none becomes none-skip-first, the
//     skip layouts stay, everything else becomes premultiplied-first; other colour models keep
//     their bitmap info, which a device RGB canvas cannot take, so they come back plain;
//   - the drawn bitmap becomes the image, with the scale and the plain image's orientation.
// An image that cannot be decoded gives absent, with the validation error if there was one.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <span>

#include "http/response_serializer.h"
#include "platform/graphics/image.h"

class ZRBHS_ImageResponseSerializer;
using ZRBHS_ImageResponseSerializerPtr = std::shared_ptr<ZRBHS_ImageResponseSerializer>;

class ZRBHS_ImageResponseSerializer : public ZRBHS_HTTPResponseSerializer {
 public:
  ZRBHS_ImageResponseSerializer();
  static ZRBHS_ImageResponseSerializerPtr serializer();

  double imageScale() const { return imageScale_.load(std::memory_order_relaxed); }
  void setImageScale(double imageScale) { imageScale_.store(imageScale, std::memory_order_relaxed); }
  bool automaticallyInflatesResponseImage() const { return inflates_.load(std::memory_order_relaxed); }
  void setAutomaticallyInflatesResponseImage(bool inflates) {
    inflates_.store(inflates, std::memory_order_relaxed);
  }

  // The image as an object value (a ZRBImage), or absent.
  ZRBValue responseObjectForResponse(const ZRBURLResponsePtr& response, const ZRBValue& data,
                                     ZRBErrorPtr* error = nullptr) override;

  // Carries imageScale() and automaticallyInflatesResponseImage() too.
  ZRBHS_HTTPResponseSerializerPtr copy() const override;

  // Adds "imageScale" (a number) and "automaticallyInflatesResponseImage" (a boolean).
  void encodeWithCoder(ZRBKeyedArchiver& coder) const override;
  std::string codingClassName() const override { return "ZRBHS_ImageResponseSerializer"; }
  static ZRBHS_ImageResponseSerializerPtr initWithCoder(ZRBKeyedUnarchiver& coder);

  std::string className() const override { return "ZRBHS_ImageResponseSerializer"; }

 private:
  std::atomic<double> imageScale_;
  std::atomic<bool> inflates_{true};
};

// ZRBImage::imageWithData under the one process-wide decoding lock.
ZRBImagePtr ZRBHS_safeImageWithData(std::span<const std::uint8_t> data);

// The decoded image at `scale`: an animated image as it is, a still one as its bitmap with the
// scale and the decoded orientation. nullptr when the bytes do not decode.
ZRBImagePtr ZRBHS_ImageWithDataAtScale(std::span<const std::uint8_t> data, double scale);

// The decoded image drawn ahead of display, as the header comment describes; nullptr for no bytes
// or bytes that do not decode.
ZRBImagePtr ZRBHS_InflatedImageFromResponseWithDataAtScale(const ZRBURLResponsePtr& response,
                                                           std::span<const std::uint8_t> data, double scale);
