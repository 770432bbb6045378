// GIF through giflib, record by record, so that every frame's size is checked against the pixel
// limit before its line buffer exists and the frames are composed onto the logical screen as the
// file's disposal methods say.
#include <gif_lib.h>

#include <algorithm>
#include <cstring>
#include <vector>

#include "platform/graphics/image_decoders_internal.h"

namespace zrb_graphics {

namespace {

// Browsers and the platform show frames with no delay (or 1/100 s) at this pace.
constexpr double kDefaultFrameDelay = 0.1;

struct Reader {
  std::span<const std::uint8_t> data;
  std::size_t offset = 0;
};

int readBytes(GifFileType* file, GifByteType* out, int wanted) {
  auto* reader = static_cast<Reader*>(file->UserData);
  const std::size_t count = std::min(static_cast<std::size_t>(wanted), reader->data.size() - reader->offset);
  std::memcpy(out, reader->data.data() + reader->offset, count);
  reader->offset += count;
  return static_cast<int>(count);
}

struct FileCloser {
  void operator()(GifFileType* file) const {
    int error = 0;
    DGifCloseFile(file, &error);
  }
};

struct Frame {
  int left = 0, top = 0, width = 0, height = 0;
  int disposal = DISPOSAL_UNSPECIFIED;
  int transparent = NO_TRANSPARENT_COLOR;
  double delay = 0;
};

class Composer {
 public:
  Composer(std::size_t width, std::size_t height)
      : width_(width), height_(height), canvas_(width * height * 4, 0) {}

  // Reads the frame's pixels into the canvas; false on damaged or truncated data.
  bool draw(GifFileType* file, const Frame& frame, const ColorMapObject& colours) {
    if (frame.disposal == DISPOSE_PREVIOUS) saved_ = canvas_;
    std::vector<GifPixelType> line(static_cast<std::size_t>(frame.width));
    static constexpr int kOffsets[] = {0, 4, 2, 1};
    static constexpr int kSteps[] = {8, 8, 4, 2};
    const int passes = file->Image.Interlace ? 4 : 1;
    for (int pass = 0; pass < passes; ++pass) {
      const int start = file->Image.Interlace ? kOffsets[pass] : 0;
      const int step = file->Image.Interlace ? kSteps[pass] : 1;
      for (int y = start; y < frame.height; y += step) {
        if (DGifGetLine(file, line.data(), frame.width) != GIF_OK) return false;
        putLine(frame, y, line, colours);
      }
    }
    return true;
  }

  // The frame as shown, then the canvas prepared for the next one.
  std::shared_ptr<ZRBBitmap> snapshot(const Frame& frame, std::uint64_t spent) {
    PixelBuffer buffer = allocatePixels(width_, height_, width_ * 4, spent);
    if (!buffer.pixels) return nullptr;
    std::memcpy(buffer.pixels.get(), canvas_.data(), buffer.length);
    if (frame.disposal == DISPOSE_BACKGROUND) {
      for (int y = frame.top; y < frame.top + frame.height && y < static_cast<int>(height_); ++y) {
        const int right = std::min(frame.left + frame.width, static_cast<int>(width_));
        if (right > frame.left)
          std::memset(pixel(frame.left, y), 0, static_cast<std::size_t>(right - frame.left) * 4);
      }
    } else if (frame.disposal == DISPOSE_PREVIOUS && !saved_.empty()) {
      canvas_.swap(saved_);
      saved_.clear();
    }
    ZRBBitmapLayout layout;
    layout.width = width_;
    layout.height = height_;
    layout.bitsPerComponent = 8;
    layout.bitsPerPixel = 32;
    layout.bytesPerRow = width_ * 4;
    layout.bitmapInfo = ZRBImageAlphaLast;
    return makeBitmap(layout, std::move(buffer));
  }

 private:
  std::uint8_t* pixel(int x, int y) {
    return canvas_.data() + (static_cast<std::size_t>(y) * width_ + x) * 4;
  }

  void putLine(const Frame& frame, int y, const std::vector<GifPixelType>& line,
               const ColorMapObject& colours) {
    const int row = frame.top + y;
    if (row >= static_cast<int>(height_)) return;
    for (int x = 0; x < frame.width; ++x) {
      const int column = frame.left + x;
      if (column >= static_cast<int>(width_)) break;
      const int index = line[static_cast<std::size_t>(x)];
      if (index == frame.transparent || index >= colours.ColorCount) continue;
      std::uint8_t* out = pixel(column, row);
      const GifColorType& colour = colours.Colors[index];
      out[0] = colour.Red;
      out[1] = colour.Green;
      out[2] = colour.Blue;
      out[3] = 255;
    }
  }

  std::size_t width_;
  std::size_t height_;
  std::vector<std::uint8_t> canvas_;
  std::vector<std::uint8_t> saved_;
};

}  // namespace

ZRBImagePtr decodeGIF(std::span<const std::uint8_t> data) {
  Reader reader{data};
  int error = 0;
  std::unique_ptr<GifFileType, FileCloser> file(DGifOpen(&reader, readBytes, &error));
  if (!file || !pixelsAllowed(file->SWidth, file->SHeight)) return nullptr;
  const auto width = static_cast<std::size_t>(file->SWidth);
  const auto height = static_cast<std::size_t>(file->SHeight);

  Composer composer(width, height);
  std::vector<ZRBImagePtr> frames;
  double duration = 0;
  Frame next;
  for (;;) {
    GifRecordType record;
    // A file that stops between frames, without its trailer, keeps the frames it completed.
    if (DGifGetRecordType(file.get(), &record) != GIF_OK) {
      if (frames.empty()) return nullptr;
      break;
    }
    if (record == TERMINATE_RECORD_TYPE) break;
    if (record == EXTENSION_RECORD_TYPE) {
      int code = 0;
      GifByteType* block = nullptr;
      if (DGifGetExtension(file.get(), &code, &block) != GIF_OK) return nullptr;
      if (code == GRAPHICS_EXT_FUNC_CODE && block && block[0] >= 4) {
        GraphicsControlBlock control;
        if (DGifExtensionToGCB(block[0], block + 1, &control) == GIF_OK) {
          next.disposal = control.DisposalMode;
          next.transparent = control.TransparentColor;
          next.delay = control.DelayTime <= 1 ? kDefaultFrameDelay : control.DelayTime / 100.0;
        }
      }
      while (block) {
        if (DGifGetExtensionNext(file.get(), &block) != GIF_OK) return nullptr;
      }
      continue;
    }
    if (record != IMAGE_DESC_RECORD_TYPE) return nullptr;
    if (DGifGetImageDesc(file.get()) != GIF_OK) return nullptr;
    const GifImageDesc& description = file->Image;
    next.left = description.Left;
    next.top = description.Top;
    next.width = description.Width;
    next.height = description.Height;
    const ColorMapObject* colours = description.ColorMap ? description.ColorMap : file->SColorMap;
    if (!colours ||
        !pixelsAllowed(static_cast<std::uint64_t>(next.width), static_cast<std::uint64_t>(next.height)))
      return nullptr;
    if (!composer.draw(file.get(), next, *colours)) return nullptr;
    std::shared_ptr<ZRBBitmap> bitmap = composer.snapshot(next, frames.size() * width * height);
    if (!bitmap) return nullptr;
    frames.push_back(ZRBImage::imageWithBitmap(std::move(bitmap)));
    duration += next.delay > 0 ? next.delay : kDefaultFrameDelay;
    next = Frame{};
  }
  if (frames.empty()) return nullptr;
  if (frames.size() == 1) return frames.front();
  return ZRBImage::animatedImageWithImages(std::move(frames), duration);
}

}  // namespace zrb_graphics
