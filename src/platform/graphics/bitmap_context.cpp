#include "platform/graphics/bitmap_context.h"

#include <pixman.h>

#include <bit>
#include <cmath>
#include <cstring>
#include <new>
#include <vector>

#include "platform/graphics/image_decoders_internal.h"

namespace {

constexpr bool kLittleEndian = std::endian::native == std::endian::little;

// The 32-bit layouts by the order of their bytes in memory.
enum MemoryOrder { ARGB, RGBA, XRGB, RGBX, BGRA, ABGR, BGRX, XBGR, kNoOrder };

// pixman names formats by the 32-bit word as the machine reads it.
pixman_format_code_t pixmanFormat(MemoryOrder order) {
  static constexpr pixman_format_code_t kLittle[] = {PIXMAN_b8g8r8a8, PIXMAN_a8b8g8r8, PIXMAN_b8g8r8x8,
                                                     PIXMAN_x8b8g8r8, PIXMAN_a8r8g8b8, PIXMAN_r8g8b8a8,
                                                     PIXMAN_x8r8g8b8, PIXMAN_r8g8b8x8};
  static constexpr pixman_format_code_t kBig[] = {PIXMAN_a8r8g8b8, PIXMAN_r8g8b8a8, PIXMAN_x8r8g8b8,
                                                  PIXMAN_r8g8b8x8, PIXMAN_b8g8r8a8, PIXMAN_a8b8g8r8,
                                                  PIXMAN_b8g8r8x8, PIXMAN_x8b8g8r8};
  return kLittleEndian ? kLittle[order] : kBig[order];
}

// The byte order of an 8-bit-per-component, 32-bit RGB pixel that pixman can read or write as it
// is: premultiplied or skipped alpha only.
MemoryOrder memoryOrder(const ZRBBitmapLayout& layout) {
  if (layout.colorSpaceModel != ZRBColorSpaceModelRGB || layout.bitsPerComponent != 8 ||
      layout.bitsPerPixel != 32)
    return kNoOrder;
  const std::uint32_t order = layout.byteOrder();
  bool reversed = false;
  if (order == ZRBBitmapByteOrder32Little) {
    reversed = true;
  } else if (order != ZRBBitmapByteOrderDefault && order != ZRBBitmapByteOrder32Big) {
    return kNoOrder;
  }
  switch (layout.alphaInfo()) {
    case ZRBImageAlphaPremultipliedFirst: return reversed ? BGRA : ARGB;
    case ZRBImageAlphaPremultipliedLast: return reversed ? ABGR : RGBA;
    case ZRBImageAlphaNoneSkipFirst: return reversed ? BGRX : XRGB;
    case ZRBImageAlphaNoneSkipLast: return reversed ? XBGR : RGBX;
    default: return kNoOrder;
  }
}

struct ImageDeleter {
  void operator()(pixman_image_t* image) const { pixman_image_unref(image); }
};
using Image = std::unique_ptr<pixman_image_t, ImageDeleter>;

// Any drawable bitmap as premultiplied a8r8g8b8 words, for layouts pixman cannot read itself
// (grey, CMYK, 16-bit components, alpha that is not premultiplied). Empty when the layout is not
// drawable.
std::vector<std::uint32_t> convert(const ZRBBitmap& bitmap) {
  const ZRBBitmapLayout& layout = bitmap.layout();
  const std::size_t componentBytes = layout.bitsPerComponent / 8;
  const std::size_t pixelBytes = layout.bitsPerPixel / 8;
  const std::size_t components = layout.componentsPerPixel();
  if ((layout.bitsPerComponent != 8 && layout.bitsPerComponent != 16) || layout.bitsPerPixel % 8 != 0 ||
      components * componentBytes > pixelBytes || components == 0)
    return {};
  const ZRBImageAlphaInfo alpha = layout.alphaInfo();
  const bool alphaFirst = alpha == ZRBImageAlphaPremultipliedFirst || alpha == ZRBImageAlphaFirst ||
                          alpha == ZRBImageAlphaNoneSkipFirst;
  const bool hasAlpha =
      alpha != ZRBImageAlphaNone && alpha != ZRBImageAlphaNoneSkipFirst && alpha != ZRBImageAlphaNoneSkipLast;
  const bool straight = alpha == ZRBImageAlphaFirst || alpha == ZRBImageAlphaLast;
  const bool reversed =
      componentBytes == 1 && pixelBytes == 4 && layout.byteOrder() == ZRBBitmapByteOrder32Little;
  const bool little16 = layout.byteOrder() == ZRBBitmapByteOrder16Little;
  const std::size_t colourAt = alphaFirst ? 1 : 0;
  const std::size_t alphaAt = alphaFirst ? 0 : components - 1;

  std::vector<std::uint32_t> out;
  try {
    out.resize(layout.width * layout.height);
  } catch (const std::bad_alloc&) {
    return {};
  }
  // The decoders' own RGBA (or ARGB) with straight alpha, which most images with alpha are, in a
  // loop of its own: opaque pixels need no arithmetic.
  if (componentBytes == 1 && pixelBytes == 4 && layout.colorSpaceModel == ZRBColorSpaceModelRGB && straight &&
      !reversed) {
    for (std::size_t y = 0; y < layout.height; ++y) {
      const std::uint8_t* p = bitmap.row(y);
      std::uint32_t* o = out.data() + y * layout.width;
      for (std::size_t x = 0; x < layout.width; ++x, p += 4) {
        const unsigned a = p[alphaAt];
        unsigned r = p[colourAt], g = p[colourAt + 1], b = p[colourAt + 2];
        if (a != 255) r = (r * a + 127) / 255, g = (g * a + 127) / 255, b = (b * a + 127) / 255;
        o[x] = a << 24 | r << 16 | g << 8 | b;
      }
    }
    return out;
  }
  for (std::size_t y = 0; y < layout.height; ++y) {
    const std::uint8_t* p = bitmap.row(y);
    std::uint32_t* o = out.data() + y * layout.width;
    for (std::size_t x = 0; x < layout.width; ++x, p += pixelBytes) {
      auto component = [&](std::size_t i) -> unsigned {
        if (componentBytes == 1) return p[reversed ? 3 - i : i];
        return little16 ? p[2 * i + 1] : p[2 * i];
      };
      unsigned a = hasAlpha ? component(alphaAt) : 255;
      unsigned r = 0, g = 0, b = 0;
      switch (alpha == ZRBImageAlphaOnly ? ZRBColorSpaceModelUnknown : layout.colorSpaceModel) {
        case ZRBColorSpaceModelMonochrome: r = g = b = component(colourAt); break;
        case ZRBColorSpaceModelRGB:
          r = component(colourAt), g = component(colourAt + 1), b = component(colourAt + 2);
          break;
        case ZRBColorSpaceModelCMYK: {
          const unsigned white = 255 - component(colourAt + 3);
          r = (255 - component(colourAt)) * white / 255;
          g = (255 - component(colourAt + 1)) * white / 255;
          b = (255 - component(colourAt + 2)) * white / 255;
          break;
        }
        case ZRBColorSpaceModelUnknown: break;
      }
      if (straight) {
        r = (r * a + 127) / 255, g = (g * a + 127) / 255, b = (b * a + 127) / 255;
      }
      o[x] = a << 24 | r << 16 | g << 8 | b;
    }
  }
  return out;
}

}  // namespace

std::shared_ptr<ZRBBitmapContext> ZRBBitmapContext::create(std::size_t width, std::size_t height,
                                                           std::size_t bitsPerComponent,
                                                           std::size_t bytesPerRow,
                                                           ZRBColorSpaceModel colorSpace,
                                                           std::uint32_t bitmapInfo) {
  if (!zrb_graphics::pixelsAllowed(width, height)) return nullptr;
  ZRBBitmapLayout layout;
  layout.width = width;
  layout.height = height;
  layout.bitsPerComponent = bitsPerComponent;
  layout.bitsPerPixel = 32;
  layout.colorSpaceModel = colorSpace;
  layout.bitmapInfo = bitmapInfo;
  layout.bytesPerRow = bytesPerRow ? bytesPerRow : (width * 4 + 15) / 16 * 16;
  const MemoryOrder order = memoryOrder(layout);
  // pixman needs whole 32-bit words per row.
  if (order == kNoOrder || layout.bytesPerRow % 4 != 0 || !layout.isConsistent()) return nullptr;
  const std::size_t length = layout.bytesPerRow * height;
  std::shared_ptr<std::uint8_t[]> pixels;
  try {
    pixels = std::make_shared<std::uint8_t[]>(length);
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
  return std::shared_ptr<ZRBBitmapContext>(
      new ZRBBitmapContext(layout, std::move(pixels), length, pixmanFormat(order)));
}

bool ZRBBitmapContext::drawBitmap(const ZRBBitmap& bitmap, ZRBRect rect) {
  const long left = std::lround(rect.x), width = std::lround(rect.width), height = std::lround(rect.height);
  const long top = static_cast<long>(layout_.height) - std::lround(rect.y + rect.height);
  if (width <= 0 || height <= 0) return false;

  // An image taken earlier shares the canvas; it keeps the pixels it was taken with.
  if (pixels_.use_count() > 1) {
    zrb_graphics::PixelBuffer copy =
        zrb_graphics::allocatePixels(layout_.width, layout_.height, layout_.bytesPerRow);
    if (!copy.pixels) return false;
    std::memcpy(copy.pixels.get(), pixels_.get(), length_);
    pixels_ = std::move(copy.pixels);
  }

  const ZRBBitmapLayout& source = bitmap.layout();
  MemoryOrder order = memoryOrder(source);
  std::vector<std::uint32_t> converted;
  pixman_format_code_t format{};
  void* sourcePixels = nullptr;
  std::size_t sourceStride = source.bytesPerRow;
  const bool aligned =
      reinterpret_cast<std::uintptr_t>(bitmap.data().data()) % 4 == 0 && sourceStride % 4 == 0;
  if (order != kNoOrder && aligned) {
    format = pixmanFormat(order);
    sourcePixels = const_cast<std::uint8_t*>(bitmap.data().data());
  } else if (source.colorSpaceModel == ZRBColorSpaceModelRGB && source.bitsPerComponent == 8 &&
             source.bitsPerPixel == 24 && source.alphaInfo() == ZRBImageAlphaNone && aligned) {
    format = kLittleEndian ? PIXMAN_b8g8r8 : PIXMAN_r8g8b8;
    sourcePixels = const_cast<std::uint8_t*>(bitmap.data().data());
  } else {
    converted = convert(bitmap);
    if (converted.empty()) return false;
    format = PIXMAN_a8r8g8b8;
    sourcePixels = converted.data();
    sourceStride = source.width * 4;
  }

  Image from(pixman_image_create_bits(format, static_cast<int>(source.width), static_cast<int>(source.height),
                                      static_cast<std::uint32_t*>(sourcePixels),
                                      static_cast<int>(sourceStride)));
  Image to(pixman_image_create_bits(static_cast<pixman_format_code_t>(pixmanFormat_),
                                    static_cast<int>(layout_.width), static_cast<int>(layout_.height),
                                    reinterpret_cast<std::uint32_t*>(pixels_.get()),
                                    static_cast<int>(layout_.bytesPerRow)));
  if (!from || !to) return false;
  if (static_cast<std::size_t>(width) != source.width || static_cast<std::size_t>(height) != source.height) {
    pixman_transform_t scale;
    pixman_transform_init_scale(
        &scale, pixman_double_to_fixed(static_cast<double>(source.width) / static_cast<double>(width)),
        pixman_double_to_fixed(static_cast<double>(source.height) / static_cast<double>(height)));
    pixman_image_set_transform(from.get(), &scale);
    pixman_image_set_filter(from.get(), PIXMAN_FILTER_BILINEAR, nullptr, 0);
    pixman_image_set_repeat(from.get(), PIXMAN_REPEAT_PAD);
  }
  pixman_image_composite32(PIXMAN_OP_OVER, from.get(), nullptr, to.get(), 0, 0, 0, 0, static_cast<int>(left),
                           static_cast<int>(top), static_cast<int>(width), static_cast<int>(height));
  return true;
}

std::shared_ptr<ZRBBitmap> ZRBBitmapContext::makeImage() const {
  return ZRBBitmap::create(layout_, pixels_, length_);
}
