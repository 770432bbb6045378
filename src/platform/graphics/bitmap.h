// ZRBBitmap: an immutable block of decoded pixels with the layout that describes it.
//
// The layout speaks the platform's terms: a colour-space model, bits per component and per pixel,
// bytes per row, and a bitmap info word that holds the alpha info (where alpha sits, whether the
// colour is premultiplied by it, or skipped padding) and the byte order. Pixels are shared between
// copies; nothing ever writes to them after the bitmap is made.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>

#include "platform/foundation/object.h"

// Colour-space models, with the platform's values.
enum ZRBColorSpaceModel : int {
  ZRBColorSpaceModelUnknown = -1,
  ZRBColorSpaceModelMonochrome = 0,
  ZRBColorSpaceModelRGB = 1,
  ZRBColorSpaceModelCMYK = 2,
};

// Alpha info (the low five bits of a bitmap info word), with the platform's values.
enum ZRBImageAlphaInfo : std::uint32_t {
  ZRBImageAlphaNone = 0,
  ZRBImageAlphaPremultipliedLast = 1,
  ZRBImageAlphaPremultipliedFirst = 2,
  ZRBImageAlphaLast = 3,
  ZRBImageAlphaFirst = 4,
  ZRBImageAlphaNoneSkipLast = 5,
  ZRBImageAlphaNoneSkipFirst = 6,
  ZRBImageAlphaOnly = 7,
};

// The rest of a bitmap info word. "Default" byte order is big-endian: components appear in memory
// in the order the alpha info names them. The 32-bit orders apply to whole 8-bit-per-component
// pixels, the 16-bit orders to each 16-bit component.
inline constexpr std::uint32_t ZRBBitmapAlphaInfoMask = 0x1F;
inline constexpr std::uint32_t ZRBBitmapByteOrderMask = 0x7000;
inline constexpr std::uint32_t ZRBBitmapByteOrderDefault = 0;
inline constexpr std::uint32_t ZRBBitmapByteOrder16Little = 1 << 12;
inline constexpr std::uint32_t ZRBBitmapByteOrder32Little = 2 << 12;
inline constexpr std::uint32_t ZRBBitmapByteOrder16Big = 3 << 12;
inline constexpr std::uint32_t ZRBBitmapByteOrder32Big = 4 << 12;

struct ZRBBitmapLayout {
  std::size_t width = 0;
  std::size_t height = 0;
  std::size_t bitsPerComponent = 8;
  std::size_t bitsPerPixel = 32;
  std::size_t bytesPerRow = 0;
  ZRBColorSpaceModel colorSpaceModel = ZRBColorSpaceModelRGB;
  std::uint32_t bitmapInfo = ZRBImageAlphaPremultipliedLast;

  ZRBImageAlphaInfo alphaInfo() const {
    return static_cast<ZRBImageAlphaInfo>(bitmapInfo & ZRBBitmapAlphaInfoMask);
  }
  std::uint32_t byteOrder() const { return bitmapInfo & ZRBBitmapByteOrderMask; }
  // Colour components plus the alpha or padding component, if any.
  std::size_t componentsPerPixel() const;
  // Whether the numbers agree with each other (components fit the pixel, pixels fit the row).
  bool isConsistent() const;
};

class ZRBBitmap final : public ZRBObject {
 public:
  // Pixels for `layout`, which must be consistent and hold height rows of bytesPerRow bytes;
  // nullptr otherwise.
  static std::shared_ptr<ZRBBitmap> create(const ZRBBitmapLayout& layout,
                                           std::shared_ptr<const std::uint8_t[]> pixels, std::size_t length);

  const ZRBBitmapLayout& layout() const { return layout_; }
  std::size_t width() const { return layout_.width; }
  std::size_t height() const { return layout_.height; }
  std::size_t bitsPerComponent() const { return layout_.bitsPerComponent; }
  std::size_t bitsPerPixel() const { return layout_.bitsPerPixel; }
  std::size_t bytesPerRow() const { return layout_.bytesPerRow; }
  ZRBColorSpaceModel colorSpaceModel() const { return layout_.colorSpaceModel; }
  std::uint32_t bitmapInfo() const { return layout_.bitmapInfo; }
  ZRBImageAlphaInfo alphaInfo() const { return layout_.alphaInfo(); }

  std::span<const std::uint8_t> data() const { return {pixels_.get(), length_}; }
  const std::uint8_t* row(std::size_t y) const { return pixels_.get() + y * layout_.bytesPerRow; }

  // Another bitmap over the same pixels.
  std::shared_ptr<ZRBBitmap> copy() const;

  std::string className() const override { return "ZRBBitmap"; }
  // "<ZRBBitmap: 0x...> (width x height, bpc, bpp, bytes per row, model, info)".
  std::string description() const override;

 private:
  ZRBBitmap(const ZRBBitmapLayout& layout, std::shared_ptr<const std::uint8_t[]> pixels, std::size_t length)
      : layout_(layout), pixels_(std::move(pixels)), length_(length) {}

  ZRBBitmapLayout layout_;
  std::shared_ptr<const std::uint8_t[]> pixels_;
  std::size_t length_;
};
