// WebP through libwebp: still pictures decode straight into the bitmap's storage, animations
// through the demuxing decoder, frame by frame.
#include <webp/decode.h>
#include <webp/demux.h>

#include <cstring>
#include <vector>

#include "platform/graphics/image_decoders_internal.h"

namespace zrb_graphics {

namespace {

struct AnimDecoderDeleter {
  void operator()(WebPAnimDecoder* decoder) const { WebPAnimDecoderDelete(decoder); }
};

ZRBBitmapLayout rgbaLayout(std::size_t width, std::size_t height) {
  ZRBBitmapLayout layout;
  layout.width = width;
  layout.height = height;
  layout.bitsPerComponent = 8;
  layout.bitsPerPixel = 32;
  layout.bytesPerRow = width * 4;
  layout.bitmapInfo = ZRBImageAlphaLast;
  return layout;
}

ZRBImagePtr decodeAnimation(std::span<const std::uint8_t> data) {
  WebPData input{data.data(), data.size()};
  WebPAnimDecoderOptions options;
  if (!WebPAnimDecoderOptionsInit(&options)) return nullptr;
  options.color_mode = MODE_RGBA;
  std::unique_ptr<WebPAnimDecoder, AnimDecoderDeleter> decoder(WebPAnimDecoderNew(&input, &options));
  WebPAnimInfo info;
  if (!decoder || !WebPAnimDecoderGetInfo(decoder.get(), &info)) return nullptr;
  const std::size_t width = info.canvas_width, height = info.canvas_height;
  if (!pixelsAllowed(width, height)) return nullptr;
  std::vector<ZRBImagePtr> frames;
  int previous = 0;
  while (WebPAnimDecoderHasMoreFrames(decoder.get())) {
    std::uint8_t* canvas = nullptr;
    int timestamp = 0;
    if (!WebPAnimDecoderGetNext(decoder.get(), &canvas, &timestamp)) return nullptr;
    PixelBuffer buffer = allocatePixels(width, height, width * 4, frames.size() * width * height);
    if (!buffer.pixels) return nullptr;
    std::memcpy(buffer.pixels.get(), canvas, buffer.length);
    frames.push_back(ZRBImage::imageWithBitmap(makeBitmap(rgbaLayout(width, height), std::move(buffer))));
    previous = timestamp;
  }
  if (frames.empty()) return nullptr;
  if (frames.size() == 1) return frames.front();
  return ZRBImage::animatedImageWithImages(std::move(frames), previous / 1000.0);
}

}  // namespace

ZRBImagePtr decodeWebP(std::span<const std::uint8_t> data) {
  WebPBitstreamFeatures features;
  if (WebPGetFeatures(data.data(), data.size(), &features) != VP8_STATUS_OK) return nullptr;
  // For an animation these are the canvas's dimensions, checked before the decoder allocates it.
  if (features.width <= 0 || features.height <= 0 || !pixelsAllowed(features.width, features.height))
    return nullptr;
  if (features.has_animation) return decodeAnimation(data);
  ZRBBitmapLayout layout = rgbaLayout(features.width, features.height);
  if (!features.has_alpha) {
    layout.bitsPerPixel = 24;
    layout.bytesPerRow = layout.width * 3;
    layout.bitmapInfo = ZRBImageAlphaNone;
  }
  PixelBuffer buffer = allocatePixels(layout.width, layout.height, layout.bytesPerRow);
  if (!buffer.pixels) return nullptr;
  const int stride = static_cast<int>(layout.bytesPerRow);
  const std::uint8_t* decoded =
      features.has_alpha
          ? WebPDecodeRGBAInto(data.data(), data.size(), buffer.pixels.get(), buffer.length, stride)
          : WebPDecodeRGBInto(data.data(), data.size(), buffer.pixels.get(), buffer.length, stride);
  if (!decoded) return nullptr;
  return ZRBImage::imageWithBitmap(makeBitmap(layout, std::move(buffer)));
}

}  // namespace zrb_graphics
