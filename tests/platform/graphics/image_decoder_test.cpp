#include "platform/graphics/image_decoder.h"

#include <gtest/gtest.h>

#include <array>
#include <functional>
#include <string>

#include "platform/graphics/image.h"
#include "support/test_images.h"

namespace {

using test_images::Bytes;

// The first pixel's bytes as the bitmap stores them.
std::array<int, 4> firstPixel(const ZRBBitmap& bitmap) {
  std::array<int, 4> out{-1, -1, -1, -1};
  for (std::size_t i = 0; i < 4 && i < bitmap.bitsPerPixel() / 8; ++i) out[i] = bitmap.data()[i];
  return out;
}

// Restores the pixel limit a test lowered.
struct PixelLimit {
  explicit PixelLimit(std::uint64_t pixels) : saved(ZRBImageMaximumPixelCount()) {
    ZRBSetImageMaximumPixelCount(pixels);
  }
  ~PixelLimit() { ZRBSetImageMaximumPixelCount(saved); }
  std::uint64_t saved;
};

// Decoding below finds each format by its bytes; these look like one and are not.
TEST(ImageDecoderTest, NearMissesAreNoImageType) {
  const Bytes nearMisses[] = {
      {'B', 'M'},                                            // too short for a bitmap header
      {0, 0, 1, 0, 0, 0},                                    // an icon directory with no entries
      {'R', 'I', 'F', 'F', 0, 0, 0, 0, 'W', 'A', 'V', 'E'},  // RIFF, but sound
      {'G', 'I', 'F', '8', '8', 'a'},
      {},
  };
  for (const Bytes& bytes : nearMisses) {
    EXPECT_EQ(ZRBImageTypeForData(bytes), ZRBImageTypeUnknown);
    EXPECT_FALSE(ZRBImage::imageWithData(bytes));
  }
}

TEST(ImageDecoderTest, EachFormatDecodesIntoItsLayout) {
  constexpr bool little = std::endian::native == std::endian::little;
  // The gradient's first pixel is (0, 0, 0x40) with the given alpha.
  struct Case {
    std::string name;
    Bytes bytes;
    std::size_t bitsPerComponent, bitsPerPixel;
    ZRBColorSpaceModel model;
    std::uint32_t info;
    std::array<int, 4> first;
  };
  const Bytes half = test_images::gradient(5, 3, 0x80);
  const auto Grey = ZRBColorSpaceModelMonochrome, RGB = ZRBColorSpaceModelRGB, CMYK = ZRBColorSpaceModelCMYK;
  const std::uint32_t order16 = little ? ZRBBitmapByteOrder16Little : ZRBBitmapByteOrder16Big;
  using namespace test_images;
  const std::uint32_t None = ZRBImageAlphaNone, Last = ZRBImageAlphaLast,
                      SkipLast = ZRBImageAlphaNoneSkipLast;
  const std::uint32_t PremultipliedLast = ZRBImageAlphaPremultipliedLast;
  // clang-format off
  const Case cases[] = {
      {"png grey", png(5, 3, 1), 8, 8, Grey, None, {0, -1, -1, -1}},
      {"png grey 16", png(5, 3, 1, 16), 16, 16, Grey, None, {0, 0, -1, -1}},
      {"png grey alpha", png(5, 3, 2, 8, half), 8, 32, RGB, Last, {0, 0, 0, 0x80}},
      {"png rgb", png(5, 3, 3), 8, 24, RGB, None, {0, 0, 0x40, -1}},
      {"png rgba", png(5, 3, 4, 8, half), 8, 32, RGB, Last, {0, 0, 0x40, 0x80}},
      {"png rgba 16", png(5, 3, 4, 16, half), 16, 64, RGB, Last | order16, {0, 0, 0, 0}},
      {"jpeg grey", jpeg(5, 3, JPEGColour::Grey), 8, 8, Grey, None, {-1, -1, -1, -1}},
      {"jpeg rgb", jpeg(5, 3), 8, 32, RGB, SkipLast, {-1, -1, -1, -1}},
      {"jpeg progressive", jpeg(5, 3, JPEGColour::RGB, 0, {}, true), 8, 32, RGB, SkipLast, {-1, -1, -1, -1}},
      // Written in Adobe's inverted form (255 = no ink) as (0, 255, 255, 255): full cyan alone.
      {"jpeg cmyk", jpeg(5, 3, JPEGColour::CMYK, 0, solid(5, 3, 0x00FFFFFF)),
       8, 32, CMYK, None, {255, 0, 0, 0}},
      {"jpeg ycck", jpeg(5, 3, JPEGColour::YCCK), 8, 32, CMYK, None, {-1, -1, -1, -1}},
      {"bmp 8", bmp(5, 3, 8), 8, 32, RGB, SkipLast, {0, 0, 0, 255}},
      {"bmp 24", bmp(5, 3, 24), 8, 32, RGB, SkipLast, {0, 0, 0x40, 255}},
      {"bmp 24 top-down", bmp(5, 3, 24, true), 8, 32, RGB, SkipLast, {0, 0, 0x40, 255}},
      {"bmp 32 masks", bmp(5, 3, 32, false, half), 8, 32, RGB, Last, {0, 0, 0x40, 0x80}},
      // The icon's mask makes the left half transparent.
      {"ico bmp", ico(bmp(5, 3, 24), 5, 3), 8, 32, RGB, Last, {0, 0, 0x40, 0}},
      {"ico png", ico(png(5, 3, 4), 5, 3), 8, 32, RGB, Last, {0, 0, 0x40, 255}},
      {"tiff rgb", tiff(5, 3, 3), 8, 32, RGB, SkipLast, {0, 0, 0x40, 255}},
      {"tiff rgba", tiff(5, 3, 4, solid(5, 3, 0xFF000080)),
       8, 32, RGB, PremultipliedLast, {0x80, 0, 0, 0x80}},
      {"webp rgb", webp(5, 3, false), 8, 24, RGB, None, {0, 0, 0x40, -1}},
      {"webp rgba", webp(5, 3, true, half), 8, 32, RGB, Last, {0, 0, 0x40, 0x80}},
  };
  // clang-format on

  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const ZRBImagePtr image = ZRBImage::imageWithData(c.bytes, 2);
    ASSERT_TRUE(image);
    const ZRBBitmap& bitmap = *image->bitmap();
    EXPECT_EQ(bitmap.width(), 5u);
    EXPECT_EQ(bitmap.height(), 3u);
    EXPECT_EQ(bitmap.bitsPerComponent(), c.bitsPerComponent);
    EXPECT_EQ(bitmap.bitsPerPixel(), c.bitsPerPixel);
    EXPECT_EQ(bitmap.bytesPerRow(), 5 * c.bitsPerPixel / 8);
    EXPECT_EQ(bitmap.colorSpaceModel(), c.model);
    EXPECT_EQ(bitmap.bitmapInfo(), c.info);
    EXPECT_EQ(image->scale(), 2);
    EXPECT_FALSE(image->isAnimated());
    const std::array<int, 4> got = firstPixel(bitmap);
    for (std::size_t i = 0; i < 4; ++i) {
      if (c.first[i] >= 0) {
        EXPECT_EQ(got[i], c.first[i]) << "byte " << i;
      }
    }
  }
}

TEST(ImageDecoderTest, JPEGOrientationComesFromEXIF) {
  const ZRBImageOrientation expected[] = {
      ZRBImageOrientationUp,           ZRBImageOrientationUp,
      ZRBImageOrientationUpMirrored,   ZRBImageOrientationDown,
      ZRBImageOrientationDownMirrored, ZRBImageOrientationLeftMirrored,
      ZRBImageOrientationRight,        ZRBImageOrientationRightMirrored,
      ZRBImageOrientationLeft,
  };
  for (int tag = 0; tag <= 8; ++tag) {
    const ZRBImagePtr image =
        ZRBImage::imageWithData(test_images::jpeg(4, 4, test_images::JPEGColour::RGB, tag));
    ASSERT_TRUE(image);
    EXPECT_EQ(image->imageOrientation(), expected[tag]) << "tag " << tag;
  }
}

TEST(ImageDecoderTest, AnimatedGIFFramesAreComposedWithTheirDisposal) {
  // Frame 1 fills the 4x2 screen red; frame 2 draws green over the right half, which is cleared
  // once it has been shown; frame 3 draws blue over the left half; frame 4 is all transparent.
  const Bytes gif = test_images::gif(4, 2,
                                     {
                                         {0, 0, 4, 2, 1, 10, 1, -1},
                                         {2, 0, 2, 2, 2, 0, 2, -1},
                                         {0, 0, 2, 2, 3, 25, 1, -1},
                                         {0, 0, 4, 2, 0, 1, 1, 0},
                                     });
  const ZRBImagePtr image = ZRBImage::imageWithData(gif);
  ASSERT_TRUE(image);
  ASSERT_TRUE(image->isAnimated());
  ASSERT_EQ(image->frameCount(), 4u);
  // Delays of 0 and 1 hundredths are shown at a tenth of a second.
  EXPECT_DOUBLE_EQ(image->duration(), 0.1 + 0.1 + 0.25 + 0.1);
  auto pixel = [&](std::size_t frame, std::size_t x) {
    const std::uint8_t* p = image->images()[frame]->bitmap()->row(1) + x * 4;
    return std::array<int, 4>{p[0], p[1], p[2], p[3]};
  };
  using P = std::array<int, 4>;
  EXPECT_EQ(pixel(0, 3), (P{255, 0, 0, 255}));
  EXPECT_EQ(pixel(1, 3), (P{0, 255, 0, 255}));
  EXPECT_EQ(pixel(2, 0), (P{0, 0, 255, 255}));
  EXPECT_EQ(pixel(2, 3), (P{0, 0, 0, 0}));      // cleared after frame 2
  EXPECT_EQ(pixel(3, 0), (P{0, 0, 255, 255}));  // all transparent: frame 3 shows through
  EXPECT_EQ(image->bitmap(), image->images()[0]->bitmap());
  for (const ZRBImagePtr& frame : image->images()) EXPECT_EQ(frame->width(), 4u);

  test_images::GIFFrame stripes{0, 0, 2, 11};
  stripes.interlacedStripes = true;
  const ZRBImagePtr interlaced = ZRBImage::imageWithData(test_images::gif(2, 11, {stripes}));
  ASSERT_TRUE(interlaced);
  const P palette[] = {{0, 0, 0, 255}, {255, 0, 0, 255}, {0, 255, 0, 255}, {0, 0, 255, 255}};
  for (std::size_t y = 0; y < 11; ++y) {
    const std::uint8_t* p = interlaced->bitmap()->row(y);
    EXPECT_EQ((P{p[0], p[1], p[2], p[3]}), palette[y % 4]) << "row " << y;
  }

  const ZRBImagePtr still = ZRBImage::imageWithData(test_images::gif(3, 3, {{0, 0, 3, 3, 2, 50}}));
  ASSERT_TRUE(still);
  EXPECT_FALSE(still->isAnimated());
  EXPECT_EQ(still->duration(), 0);
}

// Every format cut short or damaged gives no image (or, for damage the format cannot see, some
// image), never a crash; the decoders are also fuzzed.
TEST(ImageDecoderTest, TruncatedAndCorruptDataGivesNoImage) {
  const std::pair<std::string, Bytes> samples[] = {
      {"png", test_images::png(40, 30, 4)},
      {"jpeg", test_images::jpeg(40, 30)},
      {"gif", test_images::gif(40, 30, {{0, 0, 40, 30, 1}, {5, 5, 20, 20, 2}})},
      {"bmp", test_images::bmp(40, 30, 24)},
      {"ico", test_images::ico(test_images::bmp(40, 30, 24), 40, 30)},
      {"tiff", test_images::tiff(40, 30, 4)},
      {"webp", test_images::webp(40, 30, true)},
  };
  for (const auto& [name, bytes] : samples) {
    SCOPED_TRACE(name);
    ASSERT_TRUE(ZRBImage::imageWithData(bytes));
    for (std::size_t keep : {std::size_t{8}, bytes.size() / 3, bytes.size() / 2}) {
      EXPECT_FALSE(ZRBImage::imageWithData(std::span(bytes).first(keep))) << "kept " << keep;
    }
    for (std::size_t at = 10; at < bytes.size(); at += 7) {
      Bytes damaged = bytes;
      damaged[at] ^= 0x5A;
      (void)ZRBImage::imageWithData(damaged);
    }
  }
}

TEST(ImageDecoderTest, HeadersClaimingTooManyPixelsAreRefused) {
  EXPECT_FALSE(ZRBImage::imageWithData(test_images::pngClaiming(100000, 100000)));
  EXPECT_FALSE(ZRBImage::imageWithData(test_images::pngClaiming(1, 0x7FFFFFFF)));
  Bytes bmp = test_images::bmp(2, 2, 24);
  bmp[18] = bmp[19] = bmp[20] = 0xFF, bmp[21] = 0x7F;  // width 2^31 - 1
  EXPECT_FALSE(ZRBImage::imageWithData(bmp));
  Bytes gif = test_images::gif(2, 2, {{0, 0, 2, 2, 1}});
  gif[6] = gif[7] = gif[8] = gif[9] = 0xFF;  // a 65535 x 65535 screen
  EXPECT_FALSE(ZRBImage::imageWithData(gif));

  // The limit counts every format's pixels, and all frames of an animation together.
  const PixelLimit limit(64 * 64 - 1);
  const Bytes atLimit[] = {test_images::png(64, 64, 3),     test_images::jpeg(64, 64),
                           test_images::bmp(64, 64, 24),    test_images::tiff(64, 64, 3),
                           test_images::webp(64, 64, true), test_images::gif(64, 64, {{0, 0, 64, 64, 1}})};
  for (const Bytes& bytes : atLimit)
    EXPECT_FALSE(ZRBImage::imageWithData(bytes)) << ZRBImageTypeForData(bytes);
  ZRBSetImageMaximumPixelCount(2000);
  const test_images::GIFFrame frame{0, 0, 30, 30, 1};
  EXPECT_TRUE(ZRBImage::imageWithData(test_images::gif(30, 30, {frame, frame})));
  EXPECT_FALSE(ZRBImage::imageWithData(test_images::gif(30, 30, {frame, frame, frame})));
}

}  // namespace
