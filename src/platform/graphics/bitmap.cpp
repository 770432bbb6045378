#include "platform/graphics/bitmap.h"

#include <cstdio>
#include <limits>

std::size_t ZRBBitmapLayout::componentsPerPixel() const {
  std::size_t colour = 0;
  switch (colorSpaceModel) {
    case ZRBColorSpaceModelMonochrome: colour = 1; break;
    case ZRBColorSpaceModelRGB: colour = 3; break;
    case ZRBColorSpaceModelCMYK: colour = 4; break;
    case ZRBColorSpaceModelUnknown: colour = 0; break;
  }
  switch (alphaInfo()) {
    case ZRBImageAlphaNone: return colour;
    case ZRBImageAlphaOnly: return 1;
    default: return colour + 1;
  }
}

bool ZRBBitmapLayout::isConsistent() const {
  if (width == 0 || height == 0 || bitsPerComponent == 0 || bitsPerPixel == 0) return false;
  if (colorSpaceModel == ZRBColorSpaceModelUnknown && alphaInfo() != ZRBImageAlphaOnly) return false;
  if (alphaInfo() > ZRBImageAlphaOnly) return false;
  if (bitsPerComponent * componentsPerPixel() > bitsPerPixel) return false;
  if (width > std::numeric_limits<std::size_t>::max() / bitsPerPixel) return false;
  if ((width * bitsPerPixel + 7) / 8 > bytesPerRow) return false;
  return height <= std::numeric_limits<std::size_t>::max() / bytesPerRow;
}

std::shared_ptr<ZRBBitmap> ZRBBitmap::create(const ZRBBitmapLayout& layout,
                                             std::shared_ptr<const std::uint8_t[]> pixels,
                                             std::size_t length) {
  if (!pixels || !layout.isConsistent() || length < layout.bytesPerRow * layout.height) return nullptr;
  return std::shared_ptr<ZRBBitmap>(new ZRBBitmap(layout, std::move(pixels), length));
}

std::shared_ptr<ZRBBitmap> ZRBBitmap::copy() const {
  return std::shared_ptr<ZRBBitmap>(new ZRBBitmap(layout_, pixels_, length_));
}

std::string ZRBBitmap::description() const {
  char facts[160];
  std::snprintf(facts, sizeof facts, " (%zu x %zu, %zu bpc, %zu bpp, %zu bytes per row, model %d, info 0x%x)",
                layout_.width, layout_.height, layout_.bitsPerComponent, layout_.bitsPerPixel,
                layout_.bytesPerRow, static_cast<int>(layout_.colorSpaceModel), layout_.bitmapInfo);
  return ZRBObject::description() + facts;
}
