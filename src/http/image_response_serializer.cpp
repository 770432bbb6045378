#include "http/image_response_serializer.h"

#include <mutex>

#include "platform/graphics/bitmap_context.h"
#include "platform/graphics/image_decoder.h"
#include "platform/system/device.h"

ZRB_REGISTER_CODING_CLASS(ZRBHS_ImageResponseSerializer);

namespace {

constexpr std::string_view kImageScaleKey = "imageScale";
constexpr std::string_view kInflatesKey = "automaticallyInflatesResponseImage";

// Above this many pixels an image is handed out as decoded: drawing it again would double the
// memory of a large picture.
constexpr std::uint64_t kMaximumInflatedPixels = 1024 * 1024;

}  // namespace

ZRBHS_ImageResponseSerializer::ZRBHS_ImageResponseSerializer()
    : imageScale_(ZRBDevice::currentDevice()->screenScale()) {
  setAcceptableContentTypes(ContentTypes{"image/tiff", "image/jpeg", "image/gif", "image/png", "image/ico",
                                         "image/x-icon", "image/bmp", "image/x-bmp", "image/x-xbitmap",
                                         "image/x-win-bitmap"});
}

ZRBHS_ImageResponseSerializerPtr ZRBHS_ImageResponseSerializer::serializer() {
  return std::make_shared<ZRBHS_ImageResponseSerializer>();
}

ZRBValue ZRBHS_ImageResponseSerializer::responseObjectForResponse(const ZRBURLResponsePtr& response,
                                                                  const ZRBValue& data, ZRBErrorPtr* error) {
  if (!guardResponse(response, data, error)) return ZRBValue();
  const std::span<const std::uint8_t> bytes = data.bytes();
  if (automaticallyInflatesResponseImage()) {
    return ZRBValue(ZRBHS_InflatedImageFromResponseWithDataAtScale(response, bytes, imageScale()));
  }
  return ZRBValue(ZRBHS_ImageWithDataAtScale(bytes, imageScale()));
}

ZRBHS_HTTPResponseSerializerPtr ZRBHS_ImageResponseSerializer::copy() const {
  auto fresh = std::make_shared<ZRBHS_ImageResponseSerializer>();
  copyStateInto(*fresh);
  fresh->setImageScale(imageScale());
  fresh->setAutomaticallyInflatesResponseImage(automaticallyInflatesResponseImage());
  return fresh;
}

void ZRBHS_ImageResponseSerializer::encodeWithCoder(ZRBKeyedArchiver& coder) const {
  ZRBHS_HTTPResponseSerializer::encodeWithCoder(coder);
  coder.encodeDouble(imageScale(), kImageScaleKey);
  coder.encodeBool(automaticallyInflatesResponseImage(), kInflatesKey);
}

ZRBHS_ImageResponseSerializerPtr ZRBHS_ImageResponseSerializer::initWithCoder(ZRBKeyedUnarchiver& coder) {
  auto serializer = std::make_shared<ZRBHS_ImageResponseSerializer>();
  serializer->decodeStateFrom(coder);
  // A key the archive lacks leaves the fresh serializer's default.
  if (ZRBValue scale = coder.decodeValue(kImageScaleKey, ZRBValueClass::Number)) {
    serializer->setImageScale(scale.doubleValue());
  }
  if (ZRBValue inflates = coder.decodeValue(kInflatesKey, ZRBValueClass::Number)) {
    serializer->setAutomaticallyInflatesResponseImage(inflates.boolValue());
  }
  return serializer;
}

ZRBImagePtr ZRBHS_safeImageWithData(std::span<const std::uint8_t> data) {
  // Made once, never destroyed: decodes may still run while the process exits.
  static std::mutex* const lock = new std::mutex;
  std::lock_guard<std::mutex> guard(*lock);
  return ZRBImage::imageWithData(data);
}

ZRBImagePtr ZRBHS_ImageWithDataAtScale(std::span<const std::uint8_t> data, double scale) {
  ZRBImagePtr image = ZRBHS_safeImageWithData(data);
  if (!image || image->isAnimated()) return image;
  return ZRBImage::imageWithBitmap(image->bitmap(), scale, image->imageOrientation());
}

ZRBImagePtr ZRBHS_InflatedImageFromResponseWithDataAtScale(const ZRBURLResponsePtr& response,
                                                           std::span<const std::uint8_t> data, double scale) {
  if (data.empty()) return nullptr;
  const ZRBImagePtr plain = ZRBHS_ImageWithDataAtScale(data, scale);

  // The PNG and JPEG responses' own bitmaps. The plain decode above ran the same decoder over the
  // same bytes, so its bitmap is taken instead of decoding the body a second time.
  std::shared_ptr<const ZRBBitmap> bitmap;
  const std::optional<std::string> mimeType = response ? response->MIMEType() : std::nullopt;
  const ZRBImageType type = ZRBImageTypeForData(data);
  if (plain && mimeType == "image/png" && type == ZRBImageTypePNG) {
    bitmap = plain->bitmap();
  } else if (plain && mimeType == "image/jpeg" && type == ZRBImageTypeJPEG) {
    if (plain->colorSpaceModel() != ZRBColorSpaceModelCMYK) bitmap = plain->bitmap();
  }
  if (!bitmap) {
    if (!plain || plain->isAnimated()) return plain;
    bitmap = plain->bitmap() ? plain->bitmap()->copy() : nullptr;
    if (!bitmap) return nullptr;
  }

  const std::size_t width = bitmap->width(), height = bitmap->height();
  const std::size_t bitsPerComponent = bitmap->bitsPerComponent();
  if (static_cast<std::uint64_t>(width) * height > kMaximumInflatedPixels || bitsPerComponent > 8)
    return plain;

  std::uint32_t bitmapInfo = bitmap->bitmapInfo();
  if (bitmap->colorSpaceModel() == ZRBColorSpaceModelRGB) {
    const std::uint32_t alpha = bitmapInfo & ZRBBitmapAlphaInfoMask;
    if (alpha == ZRBImageAlphaNone) {
      bitmapInfo = (bitmapInfo & ~ZRBBitmapAlphaInfoMask) | ZRBImageAlphaNoneSkipFirst;
    } else if (alpha != ZRBImageAlphaNoneSkipFirst && alpha != ZRBImageAlphaNoneSkipLast) {
      bitmapInfo = (bitmapInfo & ~ZRBBitmapAlphaInfoMask) | ZRBImageAlphaPremultipliedFirst;
    }
  }
  const auto context =
      ZRBBitmapContext::create(width, height, bitsPerComponent, 0, ZRBColorSpaceModelRGB, bitmapInfo);
  if (!context) return plain;
  context->drawBitmap(*bitmap, {0, 0, static_cast<double>(width), static_cast<double>(height)});
  return ZRBImage::imageWithBitmap(context->makeImage(), scale,
                                   plain ? plain->imageOrientation() : ZRBImageOrientationUp);
}
