// The image response serializer: the guard around decoding, the plain path, and inflation's
// decisions (which bitmaps are drawn, into which layout, and which come back as decoded).
#include "http/image_response_serializer.h"

#include <gtest/gtest.h>

#include <optional>
#include <string>

#include "serializer_checks.h"
#include "support/test_images.h"

namespace {

using test_images::Bytes;

ZRBURLResponsePtr response(std::optional<std::string> mimeType, long status = 200) {
  return httpResponse(status, std::move(mimeType), "http://h/picture");
}

ZRBValue body(const Bytes& bytes) { return ZRBValue::data(bytes); }

TEST(ImageResponseSerializerInflation, DrawsOnlyWhatTheRulesAllow) {
  struct Case {
    std::string name;
    Bytes bytes;
    std::string mimeType;
    // The layout of the bitmap handed out: drawn ones are 32-bit device RGB. Widths of 5 pixels
    // tell drawn rows (padded) from decoded ones.
    std::size_t bitsPerPixel;
    ZRBColorSpaceModel model;
    std::uint32_t info;
    bool drawn;
  };
  const Case cases[] = {
      {"rgb png: none becomes none-skip-first", test_images::png(5, 8, 3), "image/png", 32,
       ZRBColorSpaceModelRGB, ZRBImageAlphaNoneSkipFirst, true},
      {"rgba png: last becomes premultiplied-first", test_images::png(5, 8, 4), "image/png", 32,
       ZRBColorSpaceModelRGB, ZRBImageAlphaPremultipliedFirst, true},
      {"rgb jpeg: none-skip-last stays", test_images::jpeg(5, 8), "image/jpeg", 32, ZRBColorSpaceModelRGB,
       ZRBImageAlphaNoneSkipLast, true},
      {"png sent as jpeg: drawn from the plain image", test_images::png(5, 8, 3), "image/jpeg", 32,
       ZRBColorSpaceModelRGB, ZRBImageAlphaNoneSkipFirst, true},
      {"bmp: drawn from the plain image", test_images::bmp(5, 8, 24), "image/bmp", 32, ZRBColorSpaceModelRGB,
       ZRBImageAlphaNoneSkipLast, true},
      {"1024 x 1024 is still drawn", test_images::png(1024, 1024, 3), "image/png", 32, ZRBColorSpaceModelRGB,
       ZRBImageAlphaNoneSkipFirst, true},
      {"1025 x 1024 is too large", test_images::png(1025, 1024, 3), "image/png", 24, ZRBColorSpaceModelRGB,
       ZRBImageAlphaNone, false},
      {"16 bits per component are too deep", test_images::png(5, 8, 3, 16), "image/png", 48,
       ZRBColorSpaceModelRGB, ZRBImageAlphaNone, false},
      {"cmyk jpeg: dropped, and its copy cannot be drawn",
       test_images::jpeg(5, 8, test_images::JPEGColour::CMYK), "image/jpeg", 32, ZRBColorSpaceModelCMYK,
       ZRBImageAlphaNone, false},
      {"grey png keeps its info, which no canvas takes", test_images::png(5, 8, 1), "image/png", 8,
       ZRBColorSpaceModelMonochrome, ZRBImageAlphaNone, false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const ZRBImagePtr plain = ZRBHS_ImageWithDataAtScale(c.bytes, 2);
    const ZRBImagePtr image =
        ZRBHS_InflatedImageFromResponseWithDataAtScale(response(c.mimeType), c.bytes, 2);
    ASSERT_TRUE(plain && image);
    const ZRBBitmap& bitmap = *image->bitmap();
    EXPECT_EQ(bitmap.bitsPerPixel(), c.bitsPerPixel);
    EXPECT_EQ(bitmap.colorSpaceModel(), c.model);
    EXPECT_EQ(bitmap.bitmapInfo(), c.info);
    EXPECT_EQ(image->scale(), 2);
    // A canvas aligns its rows to 16 bytes; decoders pack them.
    const std::size_t packed = bitmap.width() * c.bitsPerPixel / 8;
    EXPECT_EQ(bitmap.bytesPerRow(), c.drawn ? (packed + 15) / 16 * 16 : packed);
  }
}

TEST(ImageResponseSerializerInflation, DrawnPixelsArePremultipliedAndKeepTheOrientation) {
  const Bytes png = test_images::png(2, 2, 4, 8, test_images::solid(2, 2, 0xFF800080));
  const ZRBImagePtr image = ZRBHS_InflatedImageFromResponseWithDataAtScale(response("image/png"), png, 1);
  ASSERT_TRUE(image);
  const std::uint8_t* p = image->bitmap()->data().data();
  EXPECT_EQ((std::array<int, 4>{p[0], p[1], p[2], p[3]}), (std::array<int, 4>{0x80, 0x80, 0x40, 0}));

  const Bytes jpeg = test_images::jpeg(4, 4, test_images::JPEGColour::RGB, 6);
  for (bool inflate : {false, true}) {
    const ZRBImagePtr turned =
        inflate ? ZRBHS_InflatedImageFromResponseWithDataAtScale(response("image/jpeg"), jpeg, 3)
                : ZRBHS_ImageWithDataAtScale(jpeg, 3);
    ASSERT_TRUE(turned);
    EXPECT_EQ(turned->imageOrientation(), ZRBImageOrientationRight);
    EXPECT_EQ(turned->scale(), 3);
  }
}

TEST(ImageResponseSerializerInflation, AnimationsAndNothingComeBackAsTheyAre) {
  const Bytes gif = test_images::gif(4, 4, {{0, 0, 4, 4, 1, 10}, {0, 0, 4, 4, 2, 10}});
  const ZRBImagePtr animated = ZRBHS_InflatedImageFromResponseWithDataAtScale(response("image/gif"), gif, 2);
  ASSERT_TRUE(animated);
  EXPECT_EQ(animated->frameCount(), 2u);
  EXPECT_DOUBLE_EQ(animated->duration(), 0.2);
  EXPECT_TRUE(ZRBHS_ImageWithDataAtScale(gif, 2)->isAnimated());

  EXPECT_FALSE(ZRBHS_InflatedImageFromResponseWithDataAtScale(response("image/png"), {}, 1));
  const Bytes junk{'n', 'o', 't', ' ', 'a', 'n', ' ', 'i', 'm', 'a', 'g', 'e'};
  EXPECT_FALSE(ZRBHS_InflatedImageFromResponseWithDataAtScale(response("image/png"), junk, 1));
  EXPECT_FALSE(ZRBHS_InflatedImageFromResponseWithDataAtScale(nullptr, junk, 1));
  EXPECT_TRUE(ZRBHS_InflatedImageFromResponseWithDataAtScale(nullptr, test_images::png(3, 3, 3), 1));
}

TEST(ImageResponseSerializer, GuardsDecodingAndReportsValidation) {
  auto serializer = ZRBHS_ImageResponseSerializer::serializer();
  const Bytes png = test_images::png(4, 4, 3);

  ZRBErrorPtr error;
  auto image =
      serializer->responseObjectForResponse(response("image/png"), body(png), &error).objectAs<ZRBImage>();
  ASSERT_TRUE(image);
  EXPECT_FALSE(error);
  EXPECT_EQ(image->bitmap()->bitmapInfo(), ZRBImageAlphaNoneSkipFirst) << "inflated by default";

  // A bad status still decodes, with the error beside the image.
  image = serializer->responseObjectForResponse(response("image/png", 500), body(png), &error)
              .objectAs<ZRBImage>();
  EXPECT_TRUE(image);
  ASSERT_TRUE(error);
  EXPECT_EQ(error->code(), -1011);

  // WebP is decodable but not an acceptable content type.
  error = nullptr;
  EXPECT_TRUE(
      serializer
          ->responseObjectForResponse(response("image/webp"), body(test_images::webp(4, 4, false)), &error)
          .isAbsent());
  ASSERT_TRUE(error);
  EXPECT_EQ(error->code(), -1016);

  // Bytes that do not decode: absent, and no error of their own.
  error = nullptr;
  EXPECT_TRUE(serializer->responseObjectForResponse(response("image/png"), ZRBValue::data("garbage"), &error)
                  .isAbsent());
  EXPECT_FALSE(error);

  serializer->setAutomaticallyInflatesResponseImage(false);
  image =
      serializer->responseObjectForResponse(response("image/png"), body(png), nullptr).objectAs<ZRBImage>();
  ASSERT_TRUE(image);
  EXPECT_EQ(image->bitmap()->bitmapInfo(), ZRBImageAlphaNone) << "as decoded";
}

}  // namespace
