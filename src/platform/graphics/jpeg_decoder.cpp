// JPEG through libjpeg-turbo. Colour comes out as RGBX straight from the library's colour
// converter; CMYK and YCCK files stay CMYK (model 2) for the caller to judge.
#include <csetjmp>
#include <cstdio>
#include <cstring>
// jpeglib.h needs size_t and FILE declared first.
#include <jerror.h>
#include <jpeglib.h>

#include "platform/graphics/image_decoders_internal.h"

namespace zrb_graphics {

namespace {

// Progressive files may hold many scans over the same pixels; past this many, a file is taken for
// an attack on decoding time.
constexpr int kMaximumScans = 1000;

struct ErrorManager {
  jpeg_error_mgr base;
  std::jmp_buf jump;
};

[[noreturn]] void errorExit(j_common_ptr info) {
  std::longjmp(reinterpret_cast<ErrorManager*>(info->err)->jump, 1);
}

// Warnings are silent, except that data ending early fails the decode instead of padding the
// picture with grey.
void emitMessage(j_common_ptr info, int level) {
  if (level < 0 && info->err->msg_code == JWRN_JPEG_EOF) errorExit(info);
}

void outputMessage(j_common_ptr) {}

void checkScans(j_common_ptr info) {
  if (info->is_decompressor && reinterpret_cast<j_decompress_ptr>(info)->input_scan_number > kMaximumScans)
    errorExit(info);
}

std::uint16_t read16(const std::uint8_t* p, bool little) {
  return little ? static_cast<std::uint16_t>(p[0] | p[1] << 8) : static_cast<std::uint16_t>(p[0] << 8 | p[1]);
}

std::uint32_t read32(const std::uint8_t* p, bool little) {
  return little ? static_cast<std::uint32_t>(p[0] | p[1] << 8 | p[2] << 16 |
                                             static_cast<std::uint32_t>(p[3]) << 24)
                : static_cast<std::uint32_t>(static_cast<std::uint32_t>(p[0]) << 24 | p[1] << 16 | p[2] << 8 |
                                             p[3]);
}

// The orientation tag (0x0112) of the first IFD of an APP1 "Exif" block; Up when there is none.
ZRBImageOrientation exifOrientation(const jpeg_saved_marker_ptr markers) {
  for (jpeg_saved_marker_ptr marker = markers; marker; marker = marker->next) {
    const std::uint8_t* p = marker->data;
    const std::size_t length = marker->data_length;
    if (marker->marker != JPEG_APP0 + 1 || length < 14 || std::memcmp(p, "Exif\0\0", 6) != 0) continue;
    const std::uint8_t* tiff = p + 6;
    const std::size_t size = length - 6;
    const bool little = tiff[0] == 'I' && tiff[1] == 'I';
    if (!little && !(tiff[0] == 'M' && tiff[1] == 'M')) continue;
    const std::uint32_t ifd = read32(tiff + 4, little);
    if (ifd > size - 2) continue;
    const std::size_t count = read16(tiff + ifd, little);
    for (std::size_t i = 0; i < count; ++i) {
      const std::size_t entry = ifd + 2 + i * 12;
      if (entry + 12 > size) break;
      if (read16(tiff + entry, little) != 0x0112) continue;
      switch (read16(tiff + entry + 8, little)) {
        case 2: return ZRBImageOrientationUpMirrored;
        case 3: return ZRBImageOrientationDown;
        case 4: return ZRBImageOrientationDownMirrored;
        case 5: return ZRBImageOrientationLeftMirrored;
        case 6: return ZRBImageOrientationRight;
        case 7: return ZRBImageOrientationRightMirrored;
        case 8: return ZRBImageOrientationLeft;
        default: return ZRBImageOrientationUp;
      }
    }
  }
  return ZRBImageOrientationUp;
}

// Everything that must survive a longjmp out of the library lives here, outside the frame that
// calls setjmp.
struct Job {
  std::span<const std::uint8_t> data;
  ZRBBitmapLayout layout;
  PixelBuffer buffer;
  ZRBImageOrientation orientation = ZRBImageOrientationUp;
  bool invertedCMYK = false;
};

bool prepare(j_decompress_ptr info, Job& job) {
  if (!pixelsAllowed(info->image_width, info->image_height)) return false;
  ZRBBitmapLayout& layout = job.layout;
  layout.width = info->image_width;
  layout.height = info->image_height;
  layout.bitsPerComponent = 8;
  switch (info->jpeg_color_space) {
    case JCS_GRAYSCALE:
      info->out_color_space = JCS_GRAYSCALE;
      layout.colorSpaceModel = ZRBColorSpaceModelMonochrome;
      layout.bitmapInfo = ZRBImageAlphaNone;
      layout.bitsPerPixel = 8;
      break;
    case JCS_CMYK:
    case JCS_YCCK:
      info->out_color_space = JCS_CMYK;
      layout.colorSpaceModel = ZRBColorSpaceModelCMYK;
      layout.bitmapInfo = ZRBImageAlphaNone;
      layout.bitsPerPixel = 32;
      // Adobe's writers store CMYK inverted (255 = no ink).
      job.invertedCMYK = info->saw_Adobe_marker;
      break;
    default:
      info->out_color_space = JCS_EXT_RGBX;
      layout.colorSpaceModel = ZRBColorSpaceModelRGB;
      layout.bitmapInfo = ZRBImageAlphaNoneSkipLast;
      layout.bitsPerPixel = 32;
      break;
  }
  layout.bytesPerRow = layout.width * layout.bitsPerPixel / 8;
  job.orientation = exifOrientation(info->marker_list);
  job.buffer = allocatePixels(layout.width, layout.height, layout.bytesPerRow);
  return job.buffer.pixels != nullptr;
}

// Only trivially destructible locals: a longjmp may leave this frame from inside the library.
bool run(Job& job) {
  jpeg_decompress_struct info;
  ErrorManager errors;
  jpeg_progress_mgr progress;
  info.err = jpeg_std_error(&errors.base);
  errors.base.error_exit = errorExit;
  errors.base.emit_message = emitMessage;
  errors.base.output_message = outputMessage;
  if (setjmp(errors.jump)) {
    jpeg_destroy_decompress(&info);
    return false;
  }
  jpeg_create_decompress(&info);
  progress.progress_monitor = checkScans;
  info.progress = &progress;
  jpeg_mem_src(&info, job.data.data(), static_cast<unsigned long>(job.data.size()));
  jpeg_save_markers(&info, JPEG_APP0 + 1, 0xFFFF);
  jpeg_read_header(&info, TRUE);
  if (!prepare(&info, job)) {
    jpeg_destroy_decompress(&info);
    return false;
  }
  jpeg_start_decompress(&info);
  if (info.output_width != job.layout.width || info.output_height != job.layout.height ||
      static_cast<std::size_t>(info.output_components) * 8 != job.layout.bitsPerPixel) {
    jpeg_destroy_decompress(&info);
    return false;
  }
  std::uint8_t* const pixels = job.buffer.pixels.get();
  JSAMPROW rows[16];
  while (info.output_scanline < info.output_height) {
    const JDIMENSION first = info.output_scanline;
    JDIMENSION count = info.output_height - first;
    if (count > 16) count = 16;
    for (JDIMENSION i = 0; i < count; ++i) rows[i] = pixels + (first + i) * job.layout.bytesPerRow;
    if (jpeg_read_scanlines(&info, rows, count) == 0) {
      jpeg_destroy_decompress(&info);
      return false;
    }
  }
  jpeg_finish_decompress(&info);
  jpeg_destroy_decompress(&info);
  return true;
}

}  // namespace

ZRBImagePtr decodeJPEG(std::span<const std::uint8_t> data) {
  Job job;
  job.data = data;
  if (!run(job)) return nullptr;
  if (job.invertedCMYK) {
    std::uint8_t* p = job.buffer.pixels.get();
    for (std::size_t i = 0; i < job.buffer.length; ++i) p[i] = static_cast<std::uint8_t>(255 - p[i]);
  }
  return ZRBImage::imageWithBitmap(makeBitmap(job.layout, std::move(job.buffer)), 1, job.orientation);
}

}  // namespace zrb_graphics
