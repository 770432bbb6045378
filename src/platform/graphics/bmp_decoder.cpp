// BMP and ICO. No well-kept library on the system reads them, and the uncompressed device-
// independent bitmap they share is simple enough to read here: 1, 4, 8 bits with a palette,
// 16, 24 and 32 bits with or without bit-field masks. RLE-compressed files are refused.
// Icons hold either such a bitmap (twice as high, the lower half being a 1-bit transparency mask)
// or a whole PNG; the largest picture in the file is taken.
#include <bit>
#include <cstring>

#include "platform/graphics/image_decoders_internal.h"

namespace zrb_graphics {

namespace {

std::uint16_t le16(const std::uint8_t* p) { return static_cast<std::uint16_t>(p[0] | p[1] << 8); }
std::uint32_t le32(const std::uint8_t* p) {
  return static_cast<std::uint32_t>(p[0] | p[1] << 8 | p[2] << 16 | static_cast<std::uint32_t>(p[3]) << 24);
}

constexpr std::uint32_t kCompressionNone = 0;
constexpr std::uint32_t kCompressionBitFields = 3;
constexpr std::uint32_t kCompressionAlphaBitFields = 6;

// One colour channel of a bit-field pixel, scaled to 8 bits.
struct Channel {
  std::uint32_t mask = 0;
  int shift = 0;
  int bits = 0;

  explicit Channel(std::uint32_t m = 0) : mask(m) {
    if (m == 0) return;
    shift = std::countr_zero(m);
    bits = std::popcount(m);
  }
  std::uint8_t read(std::uint32_t pixel) const {
    if (bits == 0) return 0;
    const std::uint32_t value = (pixel & mask) >> shift;
    if (bits >= 8) return static_cast<std::uint8_t>(value >> (bits - 8));
    const std::uint32_t top = (1u << bits) - 1;
    return static_cast<std::uint8_t>((value * 255 + top / 2) / top);
  }
};

// A device-independent bitmap: its header at `dib`, its pixels at `pixelsAt` (both offsets into
// data). In an icon, height is doubled and an AND mask follows the pixels.
std::shared_ptr<ZRBBitmap> decodeDIB(std::span<const std::uint8_t> data, std::size_t dib,
                                     std::size_t pixelsAt, bool icon) {
  const std::size_t size = data.size();
  if (dib > size || size - dib < 12) return nullptr;
  const std::uint8_t* h = data.data() + dib;
  const std::uint32_t headerSize = le32(h);
  if (headerSize < 12 || headerSize > size - dib) return nullptr;
  std::int64_t width = 0, height = 0;
  std::uint32_t bitCount = 0, compression = kCompressionNone, coloursUsed = 0;
  std::size_t paletteEntrySize = 4;
  if (headerSize == 12) {
    width = le16(h + 4);
    height = static_cast<std::int16_t>(le16(h + 6));
    bitCount = le16(h + 10);
    paletteEntrySize = 3;
  } else {
    if (headerSize < 40) return nullptr;
    width = static_cast<std::int32_t>(le32(h + 4));
    height = static_cast<std::int32_t>(le32(h + 8));
    bitCount = le16(h + 14);
    compression = le32(h + 16);
    coloursUsed = le32(h + 32);
  }
  const bool topDown = height < 0;
  if (topDown) height = -height;
  if (icon) height /= 2;
  if (width <= 0 || height <= 0 ||
      !pixelsAllowed(static_cast<std::uint64_t>(width), static_cast<std::uint64_t>(height)))
    return nullptr;

  // Bit-field masks: inside headers of 52 bytes and more, else right after a 40-byte header.
  std::uint32_t masks[4] = {0, 0, 0, 0};
  std::size_t afterHeader = dib + headerSize;
  if (compression == kCompressionBitFields || compression == kCompressionAlphaBitFields) {
    if (bitCount != 16 && bitCount != 32) return nullptr;
    const std::size_t count = compression == kCompressionAlphaBitFields ? 4 : 3;
    const std::uint8_t* m = h + 40;
    if (headerSize < 40 + count * 4) {
      if (size - afterHeader < count * 4) return nullptr;
      m = data.data() + afterHeader;
      afterHeader += count * 4;
    }
    for (std::size_t i = 0; i < count; ++i) masks[i] = le32(m + i * 4);
    if (headerSize >= 56) masks[3] = le32(h + 52);
  } else if (compression != kCompressionNone) {
    return nullptr;
  } else if (bitCount == 16) {
    masks[0] = 0x7C00, masks[1] = 0x03E0, masks[2] = 0x001F;
  } else if (bitCount == 32) {
    masks[0] = 0x00FF0000, masks[1] = 0x0000FF00, masks[2] = 0x000000FF;
  }

  const std::uint8_t* palette = nullptr;
  std::size_t paletteSize = 0;
  if (bitCount <= 8) {
    if (bitCount != 1 && bitCount != 4 && bitCount != 8) return nullptr;
    paletteSize = coloursUsed && coloursUsed < (1u << bitCount) ? coloursUsed : (1u << bitCount);
    if (size - afterHeader < paletteSize * paletteEntrySize) {
      paletteSize = (size - afterHeader) / paletteEntrySize;
    }
    palette = data.data() + afterHeader;
    if (pixelsAt == 0) pixelsAt = afterHeader + paletteSize * paletteEntrySize;
  } else if (bitCount != 16 && bitCount != 24 && bitCount != 32) {
    return nullptr;
  }
  if (pixelsAt == 0) pixelsAt = afterHeader;

  const auto w = static_cast<std::size_t>(width);
  const auto rows = static_cast<std::size_t>(height);
  const std::size_t stride = (w * bitCount + 31) / 32 * 4;
  const std::size_t maskStride = icon ? (w + 31) / 32 * 4 : 0;
  if (pixelsAt > size || (size - pixelsAt) / stride < rows) return nullptr;
  const bool hasMask = icon && (size - pixelsAt - stride * rows) / maskStride >= rows;

  PixelBuffer buffer = allocatePixels(w, rows, w * 4);
  if (!buffer.pixels) return nullptr;
  const Channel red(masks[0]), green(masks[1]), blue(masks[2]), alpha(bitCount == 32 ? masks[3] : 0);
  bool anyAlpha = false;
  for (std::size_t y = 0; y < rows; ++y) {
    const std::size_t fileRow = topDown ? y : rows - 1 - y;
    const std::uint8_t* in = data.data() + pixelsAt + fileRow * stride;
    std::uint8_t* out = buffer.pixels.get() + y * w * 4;
    for (std::size_t x = 0; x < w; ++x, out += 4) {
      if (bitCount <= 8) {
        const std::size_t bit = x * bitCount;
        const unsigned index = (in[bit / 8] >> (8 - bitCount - bit % 8)) & ((1u << bitCount) - 1);
        if (index < paletteSize) {
          const std::uint8_t* entry = palette + index * paletteEntrySize;
          out[0] = entry[2], out[1] = entry[1], out[2] = entry[0];
        } else {
          out[0] = out[1] = out[2] = 0;
        }
        out[3] = 255;
      } else if (bitCount == 24) {
        out[0] = in[x * 3 + 2], out[1] = in[x * 3 + 1], out[2] = in[x * 3];
        out[3] = 255;
      } else {
        const std::uint32_t pixel = bitCount == 16 ? le16(in + x * 2) : le32(in + x * 4);
        out[0] = red.read(pixel), out[1] = green.read(pixel), out[2] = blue.read(pixel);
        out[3] = alpha.bits ? alpha.read(pixel) : 255;
        anyAlpha = anyAlpha || (alpha.bits && out[3] != 0);
      }
    }
  }
  // 32-bit icons carry alpha in the fourth byte even without masks; an all-zero alpha channel means
  // the writer did not use it.
  if (icon && bitCount == 32 && !alpha.bits) {
    for (std::size_t y = 0; y < rows; ++y) {
      const std::size_t fileRow = topDown ? y : rows - 1 - y;
      const std::uint8_t* in = data.data() + pixelsAt + fileRow * stride;
      for (std::size_t x = 0; x < w; ++x) anyAlpha = anyAlpha || in[x * 4 + 3] != 0;
    }
    if (anyAlpha) {
      for (std::size_t y = 0; y < rows; ++y) {
        const std::size_t fileRow = topDown ? y : rows - 1 - y;
        const std::uint8_t* in = data.data() + pixelsAt + fileRow * stride;
        std::uint8_t* out = buffer.pixels.get() + y * w * 4;
        for (std::size_t x = 0; x < w; ++x) out[x * 4 + 3] = in[x * 4 + 3];
      }
    }
  }
  if (!anyAlpha && !alpha.bits && hasMask) {
    const std::uint8_t* maskRows = data.data() + pixelsAt + stride * rows;
    for (std::size_t y = 0; y < rows; ++y) {
      const std::size_t fileRow = topDown ? y : rows - 1 - y;
      const std::uint8_t* in = maskRows + fileRow * maskStride;
      std::uint8_t* out = buffer.pixels.get() + y * w * 4;
      for (std::size_t x = 0; x < w; ++x) {
        if (in[x / 8] & (0x80 >> (x % 8))) out[x * 4 + 3] = 0, anyAlpha = true;
      }
    }
  }

  ZRBBitmapLayout layout;
  layout.width = w;
  layout.height = rows;
  layout.bitsPerComponent = 8;
  layout.bitsPerPixel = 32;
  layout.bytesPerRow = w * 4;
  layout.bitmapInfo = anyAlpha || alpha.bits ? ZRBImageAlphaLast : ZRBImageAlphaNoneSkipLast;
  return makeBitmap(layout, std::move(buffer));
}

}  // namespace

std::shared_ptr<ZRBBitmap> decodeBMP(std::span<const std::uint8_t> data) {
  if (data.size() < 26) return nullptr;
  const std::uint32_t pixelsAt = le32(data.data() + 10);
  if (pixelsAt < 26) return nullptr;
  return decodeDIB(data, 14, pixelsAt, false);
}

std::shared_ptr<ZRBBitmap> decodeICO(std::span<const std::uint8_t> data) {
  if (data.size() < 6) return nullptr;
  const std::size_t count = le16(data.data() + 4);
  if (count == 0 || (data.size() - 6) / 16 < count) return nullptr;
  std::size_t best = count;
  std::uint64_t bestArea = 0;
  for (std::size_t i = 0; i < count; ++i) {
    const std::uint8_t* entry = data.data() + 6 + i * 16;
    const std::uint64_t w = entry[0] ? entry[0] : 256, h = entry[1] ? entry[1] : 256;
    const std::uint64_t area = w * h * 64 + le16(entry + 6);
    if (area > bestArea) best = i, bestArea = area;
  }
  const std::uint8_t* entry = data.data() + 6 + best * 16;
  const std::uint32_t length = le32(entry + 8), offset = le32(entry + 12);
  if (offset > data.size() || length > data.size() - offset) return nullptr;
  const std::span<const std::uint8_t> picture = data.subspan(offset, length);
  if (ZRBImageTypeForData(picture) == ZRBImageTypePNG) return decodePNG(picture);
  return decodeDIB(picture, 0, 0, true);
}

}  // namespace zrb_graphics
