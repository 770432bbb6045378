// Small images made at run time with the encoding libraries themselves, for the decoder and image
// serializer tests. Pixels are given as straight (not premultiplied) RGBA; every encoder takes
// what its format can hold of them.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace test_images {

using Bytes = std::vector<std::uint8_t>;

// width x height RGBA pixels, each the same colour.
Bytes solid(int width, int height, std::uint32_t rgba);
// width x height RGBA pixels: red rises with x, green with y, blue fixed, alpha as given.
Bytes gradient(int width, int height, std::uint8_t alpha = 255);

// channels: 1 grey, 2 grey+alpha, 3 RGB, 4 RGBA; depth 8 or 16.
Bytes png(int width, int height, int channels, int depth = 8, const Bytes& rgba = {});
// A PNG whose header claims width x height (valid checksums, one tiny IDAT).
Bytes pngClaiming(std::uint32_t width, std::uint32_t height);

enum class JPEGColour { Grey, RGB, CMYK, YCCK };
// exifOrientation 0 writes no EXIF block.
Bytes jpeg(int width, int height, JPEGColour colour = JPEGColour::RGB, int exifOrientation = 0,
           const Bytes& rgba = {}, bool progressive = false);

struct GIFFrame {
  int left = 0, top = 0, width = 0, height = 0;
  std::uint8_t colourIndex = 0;  // every pixel of the frame
  int delayCentiseconds = 0;
  int disposal = 0;      // 0 unspecified, 1 keep, 2 background, 3 previous
  int transparent = -1;  // colour index shown as transparent, -1 none
  // Rows stored interlaced, row y coloured y % 4 (colourIndex is then unused).
  bool interlacedStripes = false;
};
// Palette: 0 black, 1 red, 2 green, 3 blue.
Bytes gif(int width, int height, const std::vector<GIFFrame>& frames);

// bitCount 8 (palette of grey levels), 24 or 32 (32 with an alpha bit-field mask).
Bytes bmp(int width, int height, int bitCount, bool topDown = false, const Bytes& rgba = {});
// An icon holding `picture` (a PNG, or a BMP file whose device-independent part is taken);
// for a BMP the AND mask marks the left half transparent.
Bytes ico(const Bytes& picture, int width, int height);

// channels 3 or 4 (alpha as an extra unassociated sample).
Bytes tiff(int width, int height, int channels, const Bytes& rgba = {});

Bytes webp(int width, int height, bool alpha, const Bytes& rgba = {});

}  // namespace test_images
