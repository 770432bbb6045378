// The per-format decoders and what they share; used only inside the graphics folder.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>

#include "platform/graphics/bitmap.h"
#include "platform/graphics/image.h"
#include "platform/graphics/image_decoder.h"

namespace zrb_graphics {

// Zero-filled storage is not needed: every decoder writes each byte it hands out.
struct PixelBuffer {
  std::shared_ptr<std::uint8_t[]> pixels;
  std::size_t length = 0;
};

// Whether width x height pixels (one frame) stay within what may still be decoded; `spent` counts
// the pixels already decoded for the same image (earlier frames).
bool pixelsAllowed(std::uint64_t width, std::uint64_t height, std::uint64_t spent = 0);

// Storage for height rows of bytesPerRow bytes, after the limit check on width x height; empty when
// the limit refuses or memory runs out.
PixelBuffer allocatePixels(std::size_t width, std::size_t height, std::size_t bytesPerRow,
                           std::uint64_t spent = 0);

std::shared_ptr<ZRBBitmap> makeBitmap(const ZRBBitmapLayout& layout, PixelBuffer buffer);

std::shared_ptr<ZRBBitmap> decodePNG(std::span<const std::uint8_t> data);
ZRBImagePtr decodeJPEG(std::span<const std::uint8_t> data);
ZRBImagePtr decodeGIF(std::span<const std::uint8_t> data);
std::shared_ptr<ZRBBitmap> decodeBMP(std::span<const std::uint8_t> data);
std::shared_ptr<ZRBBitmap> decodeICO(std::span<const std::uint8_t> data);
std::shared_ptr<ZRBBitmap> decodeTIFF(std::span<const std::uint8_t> data);
ZRBImagePtr decodeWebP(std::span<const std::uint8_t> data);

}  // namespace zrb_graphics
