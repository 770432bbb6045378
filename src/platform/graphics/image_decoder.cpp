#include "platform/graphics/image_decoder.h"

#include <atomic>
#include <cstring>
#include <new>

#include "platform/graphics/image_decoders_internal.h"

namespace {

std::atomic<std::uint64_t> maximumPixelCount{std::uint64_t{1} << 25};

bool startsWith(std::span<const std::uint8_t> data, std::string_view magic, std::size_t at = 0) {
  return data.size() >= at + magic.size() && std::memcmp(data.data() + at, magic.data(), magic.size()) == 0;
}

}  // namespace

ZRBImageType ZRBImageTypeForData(std::span<const std::uint8_t> data) {
  using namespace std::string_view_literals;
  if (startsWith(data, "\x89PNG\r\n\x1a\n"sv)) return ZRBImageTypePNG;
  if (startsWith(data, "\xff\xd8\xff"sv)) return ZRBImageTypeJPEG;
  if (startsWith(data, "GIF87a"sv) || startsWith(data, "GIF89a"sv)) return ZRBImageTypeGIF;
  if (startsWith(data, "BM"sv) && data.size() >= 26) return ZRBImageTypeBMP;
  // Icons and cursors: reserved 0, type 1 or 2, at least one entry.
  if ((startsWith(data, "\0\0\1\0"sv) || startsWith(data, "\0\0\2\0"sv)) && data.size() >= 6 &&
      (data[4] | data[5]) != 0)
    return ZRBImageTypeICO;
  if (startsWith(data, "II*\0"sv) || startsWith(data, "MM\0*"sv)) return ZRBImageTypeTIFF;
  if (startsWith(data, "RIFF"sv) && startsWith(data, "WEBP"sv, 8)) return ZRBImageTypeWebP;
  return ZRBImageTypeUnknown;
}

std::string_view ZRBMIMETypeForImageType(ZRBImageType type) {
  switch (type) {
    case ZRBImageTypePNG: return "image/png";
    case ZRBImageTypeJPEG: return "image/jpeg";
    case ZRBImageTypeGIF: return "image/gif";
    case ZRBImageTypeBMP: return "image/bmp";
    case ZRBImageTypeICO: return "image/x-icon";
    case ZRBImageTypeTIFF: return "image/tiff";
    case ZRBImageTypeWebP: return "image/webp";
    case ZRBImageTypeUnknown: break;
  }
  return "application/octet-stream";
}

std::uint64_t ZRBImageMaximumPixelCount() { return maximumPixelCount.load(std::memory_order_relaxed); }

void ZRBSetImageMaximumPixelCount(std::uint64_t pixels) {
  maximumPixelCount.store(pixels, std::memory_order_relaxed);
}

ZRBImagePtr ZRBDecodeImage(std::span<const std::uint8_t> data) {
  using namespace zrb_graphics;
  switch (ZRBImageTypeForData(data)) {
    case ZRBImageTypePNG: return ZRBImage::imageWithBitmap(decodePNG(data));
    case ZRBImageTypeJPEG: return decodeJPEG(data);
    case ZRBImageTypeGIF: return decodeGIF(data);
    case ZRBImageTypeBMP: return ZRBImage::imageWithBitmap(decodeBMP(data));
    case ZRBImageTypeICO: return ZRBImage::imageWithBitmap(decodeICO(data));
    case ZRBImageTypeTIFF: return ZRBImage::imageWithBitmap(decodeTIFF(data));
    case ZRBImageTypeWebP: return decodeWebP(data);
    case ZRBImageTypeUnknown: break;
  }
  return nullptr;
}

std::shared_ptr<ZRBBitmap> ZRBBitmapCreateWithPNGData(std::span<const std::uint8_t> data) {
  return ZRBImageTypeForData(data) == ZRBImageTypePNG ? zrb_graphics::decodePNG(data) : nullptr;
}

std::shared_ptr<ZRBBitmap> ZRBBitmapCreateWithJPEGData(std::span<const std::uint8_t> data) {
  if (ZRBImageTypeForData(data) != ZRBImageTypeJPEG) return nullptr;
  ZRBImagePtr image = zrb_graphics::decodeJPEG(data);
  return image ? std::const_pointer_cast<ZRBBitmap>(image->bitmap()) : nullptr;
}

namespace zrb_graphics {

bool pixelsAllowed(std::uint64_t width, std::uint64_t height, std::uint64_t spent) {
  if (width == 0 || height == 0) return false;
  const std::uint64_t limit = ZRBImageMaximumPixelCount();
  if (width > limit || height > limit / width) return false;
  return spent <= limit - width * height;
}

PixelBuffer allocatePixels(std::size_t width, std::size_t height, std::size_t bytesPerRow,
                           std::uint64_t spent) {
  if (!pixelsAllowed(width, height, spent) || bytesPerRow == 0 || height > SIZE_MAX / bytesPerRow) return {};
  PixelBuffer buffer;
  buffer.length = bytesPerRow * height;
  try {
    buffer.pixels = std::make_shared_for_overwrite<std::uint8_t[]>(buffer.length);
  } catch (const std::bad_alloc&) {
    return {};
  }
  return buffer;
}

std::shared_ptr<ZRBBitmap> makeBitmap(const ZRBBitmapLayout& layout, PixelBuffer buffer) {
  return ZRBBitmap::create(layout, std::move(buffer.pixels), buffer.length);
}

}  // namespace zrb_graphics
