// ZRBImage: a decoded picture as the platform's image object: a bitmap with a scale (pixels per
// point) and an orientation, or, for an animated picture, its frames and their total duration.
//
// Decoding (imageWithData) detects the format from the bytes and never trusts a header further than
// the pixel limit (image_decoder.h): an image that cannot be decoded, or that would be too large,
// gives nullptr and allocates nothing big.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "platform/foundation/object.h"
#include "platform/graphics/bitmap.h"

// How the bitmap is to be turned for display, with the platform's values. Decoders take it from
// the file's own orientation tag (EXIF) where the format has one.
enum ZRBImageOrientation : long {
  ZRBImageOrientationUp = 0,
  ZRBImageOrientationDown = 1,
  ZRBImageOrientationLeft = 2,
  ZRBImageOrientationRight = 3,
  ZRBImageOrientationUpMirrored = 4,
  ZRBImageOrientationDownMirrored = 5,
  ZRBImageOrientationLeftMirrored = 6,
  ZRBImageOrientationRightMirrored = 7,
};

class ZRBImage;
using ZRBImagePtr = std::shared_ptr<ZRBImage>;

class ZRBImage final : public ZRBObject {
 public:
  // Decodes PNG, JPEG, GIF (animated when it has more than one frame), BMP, ICO, TIFF or WebP
  // (animated too); nullptr for anything else, for damaged or truncated data and for images above
  // the pixel limit.
  static ZRBImagePtr imageWithData(std::span<const std::uint8_t> data, double scale = 1);
  // nullptr when bitmap is null; a scale that is not positive counts as 1.
  static ZRBImagePtr imageWithBitmap(std::shared_ptr<const ZRBBitmap> bitmap, double scale = 1,
                                     ZRBImageOrientation orientation = ZRBImageOrientationUp);
  // An animated image showing `images` in turn over `duration` seconds; its own bitmap, scale and
  // orientation are the first frame's. nullptr when there are no frames.
  static ZRBImagePtr animatedImageWithImages(std::vector<ZRBImagePtr> images, double duration);

  // Absent only for an animated image made from frames without bitmaps.
  const std::shared_ptr<const ZRBBitmap>& bitmap() const { return bitmap_; }
  double scale() const { return scale_; }
  ZRBImageOrientation imageOrientation() const { return orientation_; }
  // The frames of an animated image; empty for a still one.
  const std::vector<ZRBImagePtr>& images() const { return images_; }
  bool isAnimated() const { return !images_.empty(); }
  // Seconds one pass of the animation takes; 0 for a still image.
  double duration() const { return duration_; }

  // The bitmap's facts (0 without a bitmap); frameCount is 1 for a still image.
  std::size_t width() const { return bitmap_ ? bitmap_->width() : 0; }
  std::size_t height() const { return bitmap_ ? bitmap_->height() : 0; }
  std::size_t bitsPerComponent() const { return bitmap_ ? bitmap_->bitsPerComponent() : 0; }
  std::size_t bitsPerPixel() const { return bitmap_ ? bitmap_->bitsPerPixel() : 0; }
  std::size_t bytesPerRow() const { return bitmap_ ? bitmap_->bytesPerRow() : 0; }
  std::uint32_t bitmapInfo() const { return bitmap_ ? bitmap_->bitmapInfo() : 0; }
  ZRBColorSpaceModel colorSpaceModel() const {
    return bitmap_ ? bitmap_->colorSpaceModel() : ZRBColorSpaceModelUnknown;
  }
  std::size_t frameCount() const { return images_.empty() ? 1 : images_.size(); }

  std::string className() const override { return "ZRBImage"; }
  // "<ZRBImage: 0x...>, {width, height}" in points, as the platform prints its images.
  std::string description() const override;

 private:
  ZRBImage() = default;

  std::shared_ptr<const ZRBBitmap> bitmap_;
  double scale_ = 1;
  ZRBImageOrientation orientation_ = ZRBImageOrientationUp;
  std::vector<ZRBImagePtr> images_;
  double duration_ = 0;
};
