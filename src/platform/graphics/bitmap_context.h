// ZRBBitmapContext: a canvas in a chosen pixel layout that bitmaps of any layout are drawn into,
// and that hands back what was drawn as a new bitmap.
//
// The layouts a context can be made with are the platform's for device RGB at 8 bits per
// component: 32 bits per pixel with alpha premultiplied first or last, or none-skip first or last,
// in default (big), 32-bit big or 32-bit little byte order. Others (alpha none, non-premultiplied
// alpha, deeper components, CMYK or grey canvases) give no context, as on the platform.
// Coordinates start at the bottom left corner, as the platform's do.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>

#include "platform/foundation/object.h"
#include "platform/graphics/bitmap.h"

struct ZRBRect {
  double x = 0;
  double y = 0;
  double width = 0;
  double height = 0;
};

class ZRBBitmapContext final : public ZRBObject {
 public:
  // A cleared (transparent black) canvas; bytesPerRow 0 lets the context choose (rows aligned to
  // 16 bytes). nullptr for a layout it cannot draw into, a row too short for the width, or a canvas
  // above the image pixel limit.
  static std::shared_ptr<ZRBBitmapContext> create(std::size_t width, std::size_t height,
                                                  std::size_t bitsPerComponent, std::size_t bytesPerRow,
                                                  ZRBColorSpaceModel colorSpace, std::uint32_t bitmapInfo);

  // Draws `bitmap` scaled into `rect` over what is there (source-over). Grey, RGB and CMYK bitmaps
  // of 8 or 16 bits per component in any alpha arrangement can be drawn; false (and nothing
  // drawn) for other bitmaps or an empty rectangle.
  bool drawBitmap(const ZRBBitmap& bitmap, ZRBRect rect);

  // What the canvas holds now, as a bitmap of the context's layout. The pixels are shared until the
  // next drawing, which copies them first: the bitmap never changes.
  std::shared_ptr<ZRBBitmap> makeImage() const;

  const ZRBBitmapLayout& layout() const { return layout_; }
  std::size_t width() const { return layout_.width; }
  std::size_t height() const { return layout_.height; }
  std::size_t bytesPerRow() const { return layout_.bytesPerRow; }
  std::uint32_t bitmapInfo() const { return layout_.bitmapInfo; }
  std::span<const std::uint8_t> data() const { return {pixels_.get(), length_}; }

  std::string className() const override { return "ZRBBitmapContext"; }

 private:
  ZRBBitmapContext(const ZRBBitmapLayout& layout, std::shared_ptr<std::uint8_t[]> pixels, std::size_t length,
                   std::uint32_t pixmanFormat)
      : layout_(layout), pixels_(std::move(pixels)), length_(length), pixmanFormat_(pixmanFormat) {}

  ZRBBitmapLayout layout_;
  std::shared_ptr<std::uint8_t[]> pixels_;
  std::size_t length_;
  std::uint32_t pixmanFormat_;
};
