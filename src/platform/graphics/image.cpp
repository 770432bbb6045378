#include "platform/graphics/image.h"

#include <cstdio>

#include "platform/graphics/image_decoder.h"

ZRBImagePtr ZRBImage::imageWithData(std::span<const std::uint8_t> data, double scale) {
  ZRBImagePtr decoded = ZRBDecodeImage(data);
  if (!decoded || scale == 1 || !(scale > 0)) return decoded;
  decoded->scale_ = scale;
  for (const ZRBImagePtr& frame : decoded->images_) frame->scale_ = scale;
  return decoded;
}

ZRBImagePtr ZRBImage::imageWithBitmap(std::shared_ptr<const ZRBBitmap> bitmap, double scale,
                                      ZRBImageOrientation orientation) {
  if (!bitmap) return nullptr;
  ZRBImagePtr image(new ZRBImage);
  image->bitmap_ = std::move(bitmap);
  image->scale_ = scale > 0 ? scale : 1;
  image->orientation_ = orientation;
  return image;
}

ZRBImagePtr ZRBImage::animatedImageWithImages(std::vector<ZRBImagePtr> images, double duration) {
  if (images.empty() || !images.front()) return nullptr;
  ZRBImagePtr image(new ZRBImage);
  image->bitmap_ = images.front()->bitmap_;
  image->scale_ = images.front()->scale_;
  image->orientation_ = images.front()->orientation_;
  image->images_ = std::move(images);
  image->duration_ = duration > 0 ? duration : 0;
  return image;
}

std::string ZRBImage::description() const {
  char size[64];
  std::snprintf(size, sizeof size, ", {%g, %g}", static_cast<double>(width()) / scale_,
                static_cast<double>(height()) / scale_);
  return ZRBObject::description() + size;
}
