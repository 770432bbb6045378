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

TEST(ImageDecoderTest, TypeComesFromTheBytes) {
  struct Case {
    Bytes bytes;
    ZRBImageType type;
  };
  const Case cases[] = {
      {test_images::png(2, 2, 3), ZRBImageTypePNG},
      {test_images::jpeg(2, 2), ZRBImageTypeJPEG},
      {test_images::gif(2, 2, {{0, 0, 2, 2, 1}}), ZRBImageTypeGIF},
      {test_images::bmp(2, 2, 24), ZRBImageTypeBMP},
      {test_images::ico(test_images::png(2, 2, 4), 2, 2), ZRBImageTypeICO},
      {test_images::tiff(2, 2, 3), ZRBImageTypeTIFF},
      {test_images::webp(2, 2, false), ZRBImageTypeWebP},
      {Bytes{'B', 'M'}, ZRBImageTypeUnknown},
      {Bytes{0, 0, 1, 0, 0, 0}, ZRBImageTypeUnknown},  // an icon directory with no entries
      {Bytes{'R', 'I', 'F', 'F', 0, 0, 0, 0, 'W', 'A', 'V', 'E'}, ZRBImageTypeUnknown},
      {Bytes{'{', '}'}, ZRBImageTypeUnknown},
      {Bytes{}, ZRBImageTypeUnknown},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(ZRBImageTypeForData(c.bytes), c.type) << ZRBMIMETypeForImageType(c.type);
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
  const Bytes halfAlpha = test_images::gradient(5, 3, 0x80);
  const Case cases[] = {
      {"png grey",
       test_images::png(5, 3, 1),
       8,
       8,
       ZRBColorSpaceModelMonochrome,
       ZRBImageAlphaNone,
       {0, -1, -1, -1}},
      {"png grey 16",
       test_images::png(5, 3, 1, 16),
       16,
       16,
       ZRBColorSpaceModelMonochrome,
       ZRBImageAlphaNone,
       {0, 0, -1, -1}},
      {"png grey alpha",
       test_images::png(5, 3, 2, 8, halfAlpha),
       8,
       32,
       ZRBColorSpaceModelRGB,
       ZRBImageAlphaLast,
       {0, 0, 0, 0x80}},
      {"png rgb",
       test_images::png(5, 3, 3),
       8,
       24,
       ZRBColorSpaceModelRGB,
       ZRBImageAlphaNone,
       {0, 0, 0x40, -1}},
      {"png rgba",
       test_images::png(5, 3, 4, 8, halfAlpha),
       8,
       32,
       ZRBColorSpaceModelRGB,
       ZRBImageAlphaLast,
       {0, 0, 0x40, 0x80}},
      {"png rgba 16",
       test_images::png(5, 3, 4, 16, halfAlpha),
       16,
       64,
       ZRBColorSpaceModelRGB,
       ZRBImageAlphaLast | (little ? ZRBBitmapByteOrder16Little : ZRBBitmapByteOrder16Big),
       {0, 0, 0, 0}},
      {"jpeg grey",
       test_images::jpeg(5, 3, test_images::JPEGColour::Grey),
       8,
       8,
       ZRBColorSpaceModelMonochrome,
       ZRBImageAlphaNone,
       {-1, -1, -1, -1}},
      {"jpeg rgb",
       test_images::jpeg(5, 3),
       8,
       32,
       ZRBColorSpaceModelRGB,
       ZRBImageAlphaNoneSkipLast,
       {-1, -1, -1, -1}},
      {"jpeg cmyk",
       test_images::jpeg(5, 3, test_images::JPEGColour::CMYK),
       8,
       32,
       ZRBColorSpaceModelCMYK,
       ZRBImageAlphaNone,
       {-1, -1, -1, -1}},
      {"jpeg ycck",
       test_images::jpeg(5, 3, test_images::JPEGColour::YCCK),
       8,
       32,
       ZRBColorSpaceModelCMYK,
       ZRBImageAlphaNone,
       {-1, -1, -1, -1}},
      {"bmp 8",
       test_images::bmp(5, 3, 8),
       8,
       32,
       ZRBColorSpaceModelRGB,
       ZRBImageAlphaNoneSkipLast,
       {0, 0, 0, 255}},
      {"bmp 24",
       test_images::bmp(5, 3, 24),
       8,
       32,
       ZRBColorSpaceModelRGB,
       ZRBImageAlphaNoneSkipLast,
       {0, 0, 0x40, 255}},
      {"bmp 24 top-down",
       test_images::bmp(5, 3, 24, true),
       8,
       32,
       ZRBColorSpaceModelRGB,
       ZRBImageAlphaNoneSkipLast,
       {0, 0, 0x40, 255}},
      {"bmp 32 masks",
       test_images::bmp(5, 3, 32, false, halfAlpha),
       8,
       32,
       ZRBColorSpaceModelRGB,
       ZRBImageAlphaLast,
       {0, 0, 0x40, 0x80}},
      {"ico bmp",
       test_images::ico(test_images::bmp(5, 3, 24), 5, 3),
       8,
       32,
       ZRBColorSpaceModelRGB,
       ZRBImageAlphaLast,
       {0, 0, 0x40, 0}},
      {"ico png",
       test_images::ico(test_images::png(5, 3, 4), 5, 3),
       8,
       32,
       ZRBColorSpaceModelRGB,
       ZRBImageAlphaLast,
       {0, 0, 0x40, 255}},
      {"tiff rgb",
       test_images::tiff(5, 3, 3),
       8,
       32,
       ZRBColorSpaceModelRGB,
       ZRBImageAlphaNoneSkipLast,
       {0, 0, 0x40, 255}},
      {"tiff rgba",
       test_images::tiff(5, 3, 4, test_images::solid(5, 3, 0xFF000080)),
       8,
       32,
       ZRBColorSpaceModelRGB,
       ZRBImageAlphaPremultipliedLast,
       {0x80, 0, 0, 0x80}},
      {"webp rgb",
       test_images::webp(5, 3, false),
       8,
       24,
       ZRBColorSpaceModelRGB,
       ZRBImageAlphaNone,
       {0, 0, 0x40, -1}},
      {"webp rgba",
       test_images::webp(5, 3, true, halfAlpha),
       8,
       32,
       ZRBColorSpaceModelRGB,
       ZRBImageAlphaLast,
       {0, 0, 0x40, 0x80}},
  };
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

TEST(ImageDecoderTest, CMYKJPEGKeepsInkNotInvertedValues) {
  // Stored in Adobe's inverted form as (0, 255, 255, 255): full cyan ink and nothing else.
  const ZRBImagePtr image = ZRBImage::imageWithData(
      test_images::jpeg(8, 8, test_images::JPEGColour::CMYK, 0, test_images::solid(8, 8, 0x00FFFFFF)));
  ASSERT_TRUE(image);
  const auto pixel = firstPixel(*image->bitmap());
  EXPECT_NEAR(pixel[0], 255, 3);
  EXPECT_NEAR(pixel[1], 0, 3);
  EXPECT_NEAR(pixel[2], 0, 3);
  EXPECT_NEAR(pixel[3], 0, 3);
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

  const ZRBImagePtr still = ZRBImage::imageWithData(test_images::gif(3, 3, {{0, 0, 3, 3, 2, 50}}));
  ASSERT_TRUE(still);
  EXPECT_FALSE(still->isAnimated());
  EXPECT_EQ(still->duration(), 0);
}

TEST(ImageDecoderTest, AnimatedWebPHasItsFrames) {
  const ZRBImagePtr image =
      ZRBImage::imageWithData(test_images::animatedWebP(6, 4, {0xFF0000FF, 0x00FF00FF, 0x0000FFFF}, 120));
  ASSERT_TRUE(image);
  ASSERT_EQ(image->frameCount(), 3u);
  EXPECT_NEAR(image->duration(), 0.36, 1e-9);
  EXPECT_EQ(firstPixel(*image->images()[1]->bitmap()), (std::array<int, 4>{0, 255, 0, 255}));
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
}

TEST(ImageDecoderTest, AnimationFramesShareOnePixelBudget) {
  const PixelLimit limit(2000);
  const Bytes frames = test_images::gif(30, 30, {{0, 0, 30, 30, 1}, {0, 0, 30, 30, 2}, {0, 0, 30, 30, 3}});
  EXPECT_TRUE(ZRBImage::imageWithData(test_images::gif(30, 30, {{0, 0, 30, 30, 1}, {0, 0, 30, 30, 2}})));
  EXPECT_FALSE(ZRBImage::imageWithData(frames));
}

TEST(ImageDecoderTest, PNGAndJPEGBitmapConstructorsTakeOnlyTheirFormat) {
  const Bytes png = test_images::png(3, 3, 3), jpeg = test_images::jpeg(3, 3, test_images::JPEGColour::CMYK);
  EXPECT_TRUE(ZRBBitmapCreateWithPNGData(png));
  EXPECT_FALSE(ZRBBitmapCreateWithPNGData(jpeg));
  ASSERT_TRUE(ZRBBitmapCreateWithJPEGData(jpeg));
  EXPECT_EQ(ZRBBitmapCreateWithJPEGData(jpeg)->colorSpaceModel(), ZRBColorSpaceModelCMYK);
  EXPECT_FALSE(ZRBBitmapCreateWithJPEGData(png));
}

}  // namespace
