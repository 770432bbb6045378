// Image decoding: format detection from the bytes, the pixel limit, and the decoders behind
// ZRBImage::imageWithData.
//
// Decoded layouts keep what the file holds, as the platform's decoders do:
//   PNG   grey -> monochrome 8 (or 16) bpc; RGB -> 24 (48) bpp, alpha none; with alpha, a palette
//         with transparency or grey with alpha -> RGBA 8 (16, host order) bpc, alpha last
//   JPEG  grey -> monochrome 8 bpc; colour -> RGBX 32 bpp, none-skip-last; CMYK and YCCK -> CMYK
//         32 bpp (0 = no ink), alpha none; the EXIF orientation becomes the image's
//   GIF   RGBA 8 bpc, alpha last, every frame composed onto the logical screen
//   BMP, ICO  RGBA 8 bpc, alpha last, or none-skip-last when the file has no alpha
//   TIFF  RGBA 8 bpc, premultiplied last with extra alpha samples, none-skip-last without
//   WebP  RGB 24 bpp or RGBA alpha last; animated WebP as frames
// Damaged or truncated data gives nullptr: a half-decoded picture is not passed off as the image.
#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <string_view>

#include "platform/graphics/bitmap.h"
#include "platform/graphics/image.h"

enum ZRBImageType : int {
  ZRBImageTypeUnknown = 0,
  ZRBImageTypePNG,
  ZRBImageTypeJPEG,
  ZRBImageTypeGIF,
  ZRBImageTypeBMP,
  ZRBImageTypeICO,
  ZRBImageTypeTIFF,
  ZRBImageTypeWebP,
};

// The format the leading bytes announce; the name or MIME type plays no part.
ZRBImageType ZRBImageTypeForData(std::span<const std::uint8_t> data);
// "image/png", ... ; "application/octet-stream" for an unknown type.
std::string_view ZRBMIMETypeForImageType(ZRBImageType type);

// The most pixels one decode may produce (all frames of an animation together, and a bitmap
// context's canvas). A header that claims more is refused before its pixels are allocated.
// 2^25 (about 33.5 million, 8192 x 4096) unless the host sets another bound.
std::uint64_t ZRBImageMaximumPixelCount();
void ZRBSetImageMaximumPixelCount(std::uint64_t pixels);

// Decodes any supported format at scale 1 (ZRBImage::imageWithData adds the scale).
ZRBImagePtr ZRBDecodeImage(std::span<const std::uint8_t> data);

// The bitmap of a PNG or of a JPEG alone, as the platform's PNG and JPEG data-provider decoders
// give it (a CMYK JPEG stays CMYK); nullptr for anything else or for damaged data.
std::shared_ptr<ZRBBitmap> ZRBBitmapCreateWithPNGData(std::span<const std::uint8_t> data);
std::shared_ptr<ZRBBitmap> ZRBBitmapCreateWithJPEGData(std::span<const std::uint8_t> data);
