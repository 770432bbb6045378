// Fuzzes image decoding through ZRBImage::imageWithData, every format (the type comes from the
// leading bytes; the dictionary holds each format's magic and chunk names). Whatever decodes must
// have a consistent layout and be drawable into a small canvas.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include "platform/graphics/bitmap_context.h"
#include "platform/graphics/image.h"
#include "platform/graphics/image_decoder.h"

namespace {

void check(bool condition, const char* what) {
  if (condition) return;
  std::fprintf(stderr, "image fuzzer: %s\n", what);
  std::abort();
}

void checkBitmap(const ZRBBitmap& bitmap) {
  check(bitmap.layout().isConsistent(), "inconsistent layout");
  check(bitmap.data().size() >= bitmap.bytesPerRow() * bitmap.height(), "pixels shorter than the layout");
  auto context =
      ZRBBitmapContext::create(16, 16, 8, 0, ZRBColorSpaceModelRGB, ZRBImageAlphaPremultipliedFirst);
  check(context && context->drawBitmap(bitmap, {0, 0, 16, 16}), "decoded bitmap cannot be drawn");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  // Keeps every run's memory small; the limit itself is what is being exercised.
  ZRBSetImageMaximumPixelCount(1 << 20);
  const ZRBImagePtr image = ZRBImage::imageWithData({data, size});
  if (!image) return 0;
  check(image->bitmap() != nullptr, "image without a bitmap");
  checkBitmap(*image->bitmap());
  for (const ZRBImagePtr& frame : image->images()) {
    check(frame && frame->bitmap(), "frame without a bitmap");
    checkBitmap(*frame->bitmap());
  }
  return 0;
}
