// TIFF through libtiff's RGBA interface, which handles every photometric interpretation and
// compression the library knows, from memory. Only the first page is read.
#include <tiffio.h>

#include <bit>
#include <cstring>

#include "platform/graphics/image_decoders_internal.h"

namespace zrb_graphics {

namespace {

struct Memory {
  std::span<const std::uint8_t> data;
  toff_t offset = 0;
};

tsize_t readProc(thandle_t handle, tdata_t out, tsize_t size) {
  auto* memory = static_cast<Memory*>(handle);
  if (size < 0 || memory->offset >= memory->data.size()) return 0;
  const std::size_t count = std::min(static_cast<std::size_t>(size), memory->data.size() - memory->offset);
  std::memcpy(out, memory->data.data() + memory->offset, count);
  memory->offset += count;
  return static_cast<tsize_t>(count);
}

tsize_t writeProc(thandle_t, tdata_t, tsize_t) { return -1; }

toff_t seekProc(thandle_t handle, toff_t offset, int whence) {
  auto* memory = static_cast<Memory*>(handle);
  toff_t base = 0;
  if (whence == SEEK_CUR) base = memory->offset;
  if (whence == SEEK_END) base = memory->data.size();
  memory->offset = base + offset;
  return memory->offset;
}

int closeProc(thandle_t) { return 0; }

toff_t sizeProc(thandle_t handle) { return static_cast<Memory*>(handle)->data.size(); }

int silent(TIFF*, void*, const char*, const char*, va_list) { return 1; }

struct Closer {
  void operator()(TIFF* tiff) const { TIFFClose(tiff); }
};

}  // namespace

std::shared_ptr<ZRBBitmap> decodeTIFF(std::span<const std::uint8_t> data) {
  Memory memory{data};
  TIFFOpenOptions* options = TIFFOpenOptionsAlloc();
  if (!options) return nullptr;
  TIFFOpenOptionsSetErrorHandlerExtR(options, silent, nullptr);
  TIFFOpenOptionsSetWarningHandlerExtR(options, silent, nullptr);
  // Strip and tile buffers are bounded by what a frame at the pixel limit could need.
  TIFFOpenOptionsSetMaxSingleMemAlloc(options, static_cast<tmsize_t>(ZRBImageMaximumPixelCount() * 8));
  std::unique_ptr<TIFF, Closer> tiff(TIFFClientOpenExt("memory", "rm", &memory, readProc, writeProc, seekProc,
                                                       closeProc, sizeProc, nullptr, nullptr, options));
  TIFFOpenOptionsFree(options);
  if (!tiff) return nullptr;
  std::uint32_t width = 0, height = 0;
  if (!TIFFGetField(tiff.get(), TIFFTAG_IMAGEWIDTH, &width) ||
      !TIFFGetField(tiff.get(), TIFFTAG_IMAGELENGTH, &height))
    return nullptr;
  char message[1024];
  if (!pixelsAllowed(width, height) || !TIFFRGBAImageOK(tiff.get(), message)) return nullptr;
  std::uint16_t extraCount = 0;
  std::uint16_t* extraTypes = nullptr;
  const bool hasAlpha =
      TIFFGetField(tiff.get(), TIFFTAG_EXTRASAMPLES, &extraCount, &extraTypes) && extraCount > 0;

  ZRBBitmapLayout layout;
  layout.width = width;
  layout.height = height;
  layout.bitsPerComponent = 8;
  layout.bitsPerPixel = 32;
  layout.bytesPerRow = layout.width * 4;
  // The RGBA interface premultiplies unassociated alpha itself.
  layout.bitmapInfo = hasAlpha ? ZRBImageAlphaPremultipliedLast : ZRBImageAlphaNoneSkipLast;
  PixelBuffer buffer = allocatePixels(layout.width, layout.height, layout.bytesPerRow);
  if (!buffer.pixels) return nullptr;
  auto* raster = reinterpret_cast<std::uint32_t*>(buffer.pixels.get());
  if (!TIFFReadRGBAImageOriented(tiff.get(), width, height, raster, ORIENTATION_TOPLEFT, 1)) return nullptr;
  // Each pixel is a word with red in its lowest byte: R, G, B, A in memory on a little-endian
  // machine, the order the layout names.
  if constexpr (std::endian::native == std::endian::big) {
    for (std::size_t i = 0; i < layout.width * layout.height; ++i) raster[i] = __builtin_bswap32(raster[i]);
  }
  return makeBitmap(layout, std::move(buffer));
}

}  // namespace zrb_graphics
