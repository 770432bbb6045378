#include "platform/graphics/bitmap_context.h"

#include <gtest/gtest.h>

#include <array>
#include <string>

#include "platform/graphics/image_decoder.h"
#include "support/test_images.h"

namespace {

using Pixel = std::array<int, 4>;

Pixel at(const ZRBBitmap& bitmap, std::size_t x, std::size_t y) {
  const std::uint8_t* p = bitmap.row(y) + x * 4;
  return {p[0], p[1], p[2], p[3]};
}

std::shared_ptr<ZRBBitmap> bitmapOf(ZRBBitmapLayout layout, std::vector<std::uint8_t> bytes) {
  auto pixels = std::make_shared<std::uint8_t[]>(bytes.size());
  std::copy(bytes.begin(), bytes.end(), pixels.get());
  return ZRBBitmap::create(layout, pixels, bytes.size());
}

TEST(BitmapContextTest, OnlyDrawableLayoutsMakeAContext) {
  struct Case {
    std::size_t bitsPerComponent, bytesPerRow;
    ZRBColorSpaceModel model;
    std::uint32_t info;
    bool made;
  };
  const Case cases[] = {
      {8, 0, ZRBColorSpaceModelRGB, ZRBImageAlphaPremultipliedFirst, true},
      {8, 0, ZRBColorSpaceModelRGB, ZRBImageAlphaPremultipliedLast | ZRBBitmapByteOrder32Little, true},
      {8, 0, ZRBColorSpaceModelRGB, ZRBImageAlphaNoneSkipFirst | ZRBBitmapByteOrder32Big, true},
      {8, 400, ZRBColorSpaceModelRGB, ZRBImageAlphaNoneSkipLast, true},
      {8, 0, ZRBColorSpaceModelRGB, ZRBImageAlphaNone, false},
      {8, 0, ZRBColorSpaceModelRGB, ZRBImageAlphaLast, false},
      {8, 0, ZRBColorSpaceModelRGB, ZRBImageAlphaPremultipliedLast | ZRBBitmapByteOrder16Little, false},
      {16, 0, ZRBColorSpaceModelRGB, ZRBImageAlphaPremultipliedLast, false},
      {8, 0, ZRBColorSpaceModelCMYK, ZRBImageAlphaNone, false},
      {8, 39 * 4, ZRBColorSpaceModelRGB, ZRBImageAlphaNoneSkipLast, false},  // rows too short
  };
  for (const Case& c : cases) {
    const auto context = ZRBBitmapContext::create(40, 3, c.bitsPerComponent, c.bytesPerRow, c.model, c.info);
    EXPECT_EQ(context != nullptr, c.made)
        << c.bitsPerComponent << " " << c.model << " 0x" << std::hex << c.info;
    if (context && c.bytesPerRow == 0) {
      EXPECT_GE(context->bytesPerRow(), 160u);
      EXPECT_EQ(context->bytesPerRow() % 16, 0u);
    }
  }
  EXPECT_FALSE(
      ZRBBitmapContext::create(100000, 100000, 8, 0, ZRBColorSpaceModelRGB, ZRBImageAlphaPremultipliedFirst));
  EXPECT_FALSE(ZRBBitmapContext::create(0, 10, 8, 0, ZRBColorSpaceModelRGB, ZRBImageAlphaPremultipliedFirst));
}

// One half-transparent orange pixel from every kind of source lands in the canvas premultiplied,
// in the canvas's byte order.
TEST(BitmapContextTest, SourcesOfEveryLayoutDrawIntoTheCanvasOrder) {
  struct Case {
    std::string name;
    ZRBBitmapLayout layout;
    std::vector<std::uint8_t> bytes;
    Pixel argb;  // expected, as A, R, G, B
  };
  auto layout = [](std::size_t bpc, std::size_t bpp, ZRBColorSpaceModel model, std::uint32_t info) {
    return ZRBBitmapLayout{1, 1, bpc, bpp, bpp / 8, model, info};
  };
  const auto RGB = ZRBColorSpaceModelRGB;
  // clang-format off
  const Case cases[] = {
      {"straight rgba", layout(8, 32, RGB, ZRBImageAlphaLast), {255, 128, 0, 128}, {128, 128, 64, 0}},
      {"premultiplied argb", layout(8, 32, RGB, ZRBImageAlphaPremultipliedFirst), {128, 128, 64, 0},
       {128, 128, 64, 0}},
      {"bgra little", layout(8, 32, RGB, ZRBImageAlphaPremultipliedFirst | ZRBBitmapByteOrder32Little),
       {0, 64, 128, 128}, {128, 128, 64, 0}},
      {"rgb", layout(8, 24, RGB, ZRBImageAlphaNone), {255, 128, 0}, {255, 255, 128, 0}},
      {"rgbx", layout(8, 32, RGB, ZRBImageAlphaNoneSkipLast), {255, 128, 0, 7}, {255, 255, 128, 0}},
      {"grey", layout(8, 8, ZRBColorSpaceModelMonochrome, ZRBImageAlphaNone), {90}, {255, 90, 90, 90}},
      {"cmyk", layout(8, 32, ZRBColorSpaceModelCMYK, ZRBImageAlphaNone), {0, 127, 255, 0},
       {255, 255, 128, 0}},
      {"rgba 16 big", layout(16, 64, RGB, ZRBImageAlphaLast), {255, 255, 128, 0, 0, 0, 128, 0},
       {128, 128, 64, 0}},
      {"rgba 16 little", layout(16, 64, RGB, ZRBImageAlphaLast | ZRBBitmapByteOrder16Little),
       {255, 255, 0, 128, 0, 0, 0, 128}, {128, 128, 64, 0}},
  };
  // clang-format on

  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const auto source = bitmapOf(c.layout, c.bytes);
    ASSERT_TRUE(source);
    for (std::uint32_t order : {ZRBBitmapByteOrderDefault, ZRBBitmapByteOrder32Little}) {
      auto context = ZRBBitmapContext::create(1, 1, 8, 0, ZRBColorSpaceModelRGB,
                                              ZRBImageAlphaPremultipliedFirst | order);
      ASSERT_TRUE(context);
      ASSERT_TRUE(context->drawBitmap(*source, {0, 0, 1, 1}));
      const auto image = context->makeImage();
      const Pixel got = at(*image, 0, 0);
      const Pixel expected =
          order == ZRBBitmapByteOrderDefault ? c.argb : Pixel{c.argb[3], c.argb[2], c.argb[1], c.argb[0]};
      for (int i = 0; i < 4; ++i) EXPECT_NEAR(got[i], expected[i], 1) << "byte " << i << " order " << order;
      EXPECT_EQ(image->bitmapInfo(), ZRBImageAlphaPremultipliedFirst | order);
    }
  }
}

TEST(BitmapContextTest, RectanglesScaleAndStartAtTheBottomLeft) {
  const auto red =
      ZRBImage::imageWithData(test_images::png(2, 2, 4, 8, test_images::solid(2, 2, 0xFF0000FF)));
  ASSERT_TRUE(red);
  auto context = ZRBBitmapContext::create(4, 4, 8, 0, ZRBColorSpaceModelRGB, ZRBImageAlphaPremultipliedLast);
  ASSERT_TRUE(context->drawBitmap(*red->bitmap(), {0, 0, 2, 1}));
  auto image = context->makeImage();
  EXPECT_EQ(at(*image, 0, 3), (Pixel{255, 0, 0, 255}));
  EXPECT_EQ(at(*image, 1, 3), (Pixel{255, 0, 0, 255}));
  EXPECT_EQ(at(*image, 2, 3), (Pixel{0, 0, 0, 0}));
  EXPECT_EQ(at(*image, 0, 2), (Pixel{0, 0, 0, 0}));

  ASSERT_TRUE(context->drawBitmap(*red->bitmap(), {0, 0, 4, 4}));
  EXPECT_EQ(at(*context->makeImage(), 3, 0), (Pixel{255, 0, 0, 255}));
  // The image taken before is a copy and did not change.
  EXPECT_EQ(at(*image, 3, 0), (Pixel{0, 0, 0, 0}));
  EXPECT_FALSE(context->drawBitmap(*red->bitmap(), {0, 0, 0, 4}));
}

}  // namespace
