#include "support/test_images.h"

#include <gif_lib.h>
#include <png.h>
#include <tiffio.h>
#include <unistd.h>
#include <webp/encode.h>
#include <zlib.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <stdexcept>

// jpeglib.h needs FILE and size_t declared first.
#include <jpeglib.h>

namespace test_images {

namespace {

Bytes orGradient(const Bytes& rgba, int width, int height) {
  return rgba.empty() ? gradient(width, height) : rgba;
}

void put16(Bytes& out, unsigned value) {
  out.push_back(static_cast<std::uint8_t>(value));
  out.push_back(static_cast<std::uint8_t>(value >> 8));
}
void put32(Bytes& out, std::uint32_t value) {
  put16(out, value & 0xFFFF);
  put16(out, value >> 16);
}

}  // namespace

Bytes solid(int width, int height, std::uint32_t rgba) {
  Bytes out;
  for (int i = 0; i < width * height; ++i) {
    for (int shift = 24; shift >= 0; shift -= 8) out.push_back(static_cast<std::uint8_t>(rgba >> shift));
  }
  return out;
}

Bytes gradient(int width, int height, std::uint8_t alpha) {
  Bytes out;
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) {
      out.push_back(static_cast<std::uint8_t>(x * 255 / (width > 1 ? width - 1 : 1)));
      out.push_back(static_cast<std::uint8_t>(y * 255 / (height > 1 ? height - 1 : 1)));
      out.push_back(0x40);
      out.push_back(alpha);
    }
  }
  return out;
}

Bytes png(int width, int height, int channels, int depth, const Bytes& rgba) {
  const Bytes source = orGradient(rgba, width, height);
  png_image image{};
  image.version = PNG_IMAGE_VERSION;
  image.width = static_cast<png_uint_32>(width);
  image.height = static_cast<png_uint_32>(height);
  static constexpr png_uint_32 kFormats[] = {PNG_FORMAT_GRAY, PNG_FORMAT_GA, PNG_FORMAT_RGB, PNG_FORMAT_RGBA};
  image.format = kFormats[channels - 1] | (depth == 16 ? PNG_FORMAT_FLAG_LINEAR : 0);
  // Pick the channels out of the RGBA source; 16-bit samples repeat the 8-bit value in both bytes.
  std::vector<std::uint16_t> wide;
  Bytes narrow;
  for (int i = 0; i < width * height; ++i) {
    const std::uint8_t* p = source.data() + i * 4;
    std::uint8_t picked[4];
    int n = 0;
    if (channels <= 2) picked[n++] = p[0];
    if (channels >= 3) picked[n++] = p[0], picked[n++] = p[1], picked[n++] = p[2];
    if (channels == 2 || channels == 4) picked[n++] = p[3];
    for (int c = 0; c < n; ++c) {
      narrow.push_back(picked[c]);
      wide.push_back(static_cast<std::uint16_t>(picked[c] * 257));
    }
  }
  const void* buffer = depth == 16 ? static_cast<const void*>(wide.data()) : narrow.data();
  png_alloc_size_t size = 0;
  if (!png_image_write_to_memory(&image, nullptr, &size, 0, buffer, 0, nullptr))
    throw std::runtime_error("png size");
  Bytes out(size);
  if (!png_image_write_to_memory(&image, out.data(), &size, 0, buffer, 0, nullptr))
    throw std::runtime_error("png");
  out.resize(size);
  return out;
}

Bytes pngClaiming(std::uint32_t width, std::uint32_t height) {
  Bytes out = png(1, 1, 4);
  // IHDR data starts after the signature (8), the length (4) and the type (4).
  for (int i = 0; i < 4; ++i) {
    out[16 + i] = static_cast<std::uint8_t>(width >> (24 - 8 * i));
    out[20 + i] = static_cast<std::uint8_t>(height >> (24 - 8 * i));
  }
  const auto crc = static_cast<std::uint32_t>(::crc32(0, out.data() + 12, 17));
  for (int i = 0; i < 4; ++i) out[29 + i] = static_cast<std::uint8_t>(crc >> (24 - 8 * i));
  return out;
}

Bytes jpeg(int width, int height, JPEGColour colour, int exifOrientation, const Bytes& rgba,
           bool progressive) {
  const Bytes source = orGradient(rgba, width, height);
  jpeg_compress_struct info;
  jpeg_error_mgr errors;
  info.err = jpeg_std_error(&errors);
  jpeg_create_compress(&info);
  unsigned char* buffer = nullptr;
  unsigned long size = 0;
  jpeg_mem_dest(&info, &buffer, &size);
  info.image_width = static_cast<JDIMENSION>(width);
  info.image_height = static_cast<JDIMENSION>(height);
  const bool cmyk = colour == JPEGColour::CMYK || colour == JPEGColour::YCCK;
  info.input_components = colour == JPEGColour::Grey ? 1 : cmyk ? 4 : 3;
  info.in_color_space = colour == JPEGColour::Grey ? JCS_GRAYSCALE : cmyk ? JCS_CMYK : JCS_RGB;
  jpeg_set_defaults(&info);
  if (colour == JPEGColour::YCCK) jpeg_set_colorspace(&info, JCS_YCCK);
  jpeg_set_quality(&info, 95, TRUE);
  if (progressive) jpeg_simple_progression(&info);
  jpeg_start_compress(&info, TRUE);
  if (exifOrientation) {
    // "Exif\0\0", a big-endian TIFF header, one IFD with the orientation entry.
    const std::uint8_t exif[] = {
        'E', 'x', 'i', 'f',  0,    0, 'M', 'M', 0, 42, 0, 0, 0,
        8,   0,   1,   0x01, 0x12, 0, 3,   0,   0, 0,  1, 0, static_cast<std::uint8_t>(exifOrientation),
        0,   0,   0,   0,    0,    0};
    jpeg_write_marker(&info, JPEG_APP0 + 1, exif, sizeof exif);
  }
  Bytes row(static_cast<std::size_t>(width * info.input_components));
  while (info.next_scanline < info.image_height) {
    const std::uint8_t* p = source.data() + info.next_scanline * width * 4;
    for (int x = 0; x < width; ++x) {
      if (colour == JPEGColour::Grey) {
        row[x] = p[x * 4];
      } else if (cmyk) {
        // Adobe's inverted convention, which the decoder undoes: 255 = no ink.
        for (int c = 0; c < 3; ++c) row[x * 4 + c] = p[x * 4 + c];
        row[x * 4 + 3] = 255;
      } else {
        for (int c = 0; c < 3; ++c) row[x * 3 + c] = p[x * 4 + c];
      }
    }
    JSAMPROW rows[1] = {row.data()};
    jpeg_write_scanlines(&info, rows, 1);
  }
  jpeg_finish_compress(&info);
  jpeg_destroy_compress(&info);
  Bytes out(buffer, buffer + size);
  std::free(buffer);
  return out;
}

Bytes gif(int width, int height, const std::vector<GIFFrame>& frames) {
  Bytes out;
  auto write = [](GifFileType* file, const GifByteType* bytes, int length) {
    auto* sink = static_cast<Bytes*>(file->UserData);
    sink->insert(sink->end(), bytes, bytes + length);
    return length;
  };
  int error = 0;
  GifFileType* file = EGifOpen(&out, write, &error);
  const GifColorType colours[4] = {{0, 0, 0}, {255, 0, 0}, {0, 255, 0}, {0, 0, 255}};
  ColorMapObject* map = GifMakeMapObject(4, colours);
  EGifSetGifVersion(file, true);
  EGifPutScreenDesc(file, width, height, 2, 0, map);
  for (const GIFFrame& frame : frames) {
    GraphicsControlBlock control{frame.disposal, false, frame.delayCentiseconds, frame.transparent};
    GifByteType extension[4];
    const std::size_t length = EGifGCBToExtension(&control, extension);
    EGifPutExtension(file, GRAPHICS_EXT_FUNC_CODE, static_cast<int>(length), extension);
    EGifPutImageDesc(file, frame.left, frame.top, frame.width, frame.height, frame.interlacedStripes,
                     nullptr);
    std::vector<GifPixelType> line(static_cast<std::size_t>(frame.width), frame.colourIndex);
    if (!frame.interlacedStripes) {
      for (int y = 0; y < frame.height; ++y) EGifPutLine(file, line.data(), frame.width);
      continue;
    }
    // Every 8th row from 0, every 8th from 4, every 4th from 2, every 2nd from 1.
    for (const auto& [start, step] : {std::pair{0, 8}, {4, 8}, {2, 4}, {1, 2}}) {
      for (int y = start; y < frame.height; y += step) {
        std::fill(line.begin(), line.end(), static_cast<GifPixelType>(y % 4));
        EGifPutLine(file, line.data(), frame.width);
      }
    }
  }
  EGifCloseFile(file, &error);
  GifFreeMapObject(map);
  return out;
}

Bytes bmp(int width, int height, int bitCount, bool topDown, const Bytes& rgba) {
  const Bytes source = orGradient(rgba, width, height);
  const bool masks = bitCount == 32;
  const std::uint32_t headerSize = masks ? 108 : 40;
  const std::uint32_t paletteSize = bitCount == 8 ? 256 * 4 : 0;
  const std::uint32_t stride = (static_cast<std::uint32_t>(width) * bitCount + 31) / 32 * 4;
  const std::uint32_t offset = 14 + headerSize + paletteSize;
  Bytes out{'B', 'M'};
  put32(out, offset + stride * static_cast<std::uint32_t>(height));
  put32(out, 0);
  put32(out, offset);
  put32(out, headerSize);
  put32(out, static_cast<std::uint32_t>(width));
  put32(out, static_cast<std::uint32_t>(topDown ? -height : height));
  put16(out, 1);
  put16(out, static_cast<unsigned>(bitCount));
  put32(out, masks ? 3 : 0);
  put32(out, stride * static_cast<std::uint32_t>(height));
  put32(out, 2835), put32(out, 2835), put32(out, 0), put32(out, 0);
  if (masks) {
    put32(out, 0x00FF0000), put32(out, 0x0000FF00), put32(out, 0x000000FF), put32(out, 0xFF000000);
    out.resize(14 + headerSize, 0);
  }
  for (std::uint32_t i = 0; i < paletteSize / 4; ++i) {
    for (int c = 0; c < 3; ++c) out.push_back(static_cast<std::uint8_t>(i));
    out.push_back(0);
  }
  for (int row = 0; row < height; ++row) {
    const int y = topDown ? row : height - 1 - row;
    const std::uint8_t* p = source.data() + y * width * 4;
    const std::size_t start = out.size();
    for (int x = 0; x < width; ++x, p += 4) {
      if (bitCount == 8) {
        out.push_back(p[0]);
      } else {
        out.push_back(p[2]), out.push_back(p[1]), out.push_back(p[0]);
        if (bitCount == 32) out.push_back(p[3]);
      }
    }
    out.resize(start + stride, 0);
  }
  return out;
}

Bytes ico(const Bytes& picture, int width, int height) {
  Bytes body;
  if (picture.size() > 8 && picture[0] == 0x89) {
    body = picture;
  } else {
    // The BMP without its file header, twice as high, with the AND mask after the pixels.
    body.assign(picture.begin() + 14, picture.end());
    const std::uint32_t doubled = static_cast<std::uint32_t>(height * 2);
    for (int i = 0; i < 4; ++i) body[8 + i] = static_cast<std::uint8_t>(doubled >> (8 * i));
    const int maskStride = (width + 31) / 32 * 4;
    for (int y = 0; y < height; ++y) {
      for (int b = 0; b < maskStride; ++b) {
        std::uint8_t bits = 0;
        for (int k = 0; k < 8; ++k) {
          if (b * 8 + k < width / 2) bits |= static_cast<std::uint8_t>(0x80 >> k);
        }
        body.push_back(bits);
      }
    }
  }
  Bytes out;
  put16(out, 0), put16(out, 1), put16(out, 1);
  out.push_back(static_cast<std::uint8_t>(width % 256));
  out.push_back(static_cast<std::uint8_t>(height % 256));
  out.push_back(0), out.push_back(0);
  put16(out, 1), put16(out, 32);
  put32(out, static_cast<std::uint32_t>(body.size()));
  put32(out, 22);
  out.insert(out.end(), body.begin(), body.end());
  return out;
}

Bytes tiff(int width, int height, int channels, const Bytes& rgba) {
  const Bytes source = orGradient(rgba, width, height);
  char path[] = "/tmp/orvelkit-test-XXXXXX";
  const int fd = mkstemp(path);
  if (fd < 0) throw std::runtime_error("mkstemp");
  close(fd);
  TIFF* file = TIFFOpen(path, "w");
  TIFFSetField(file, TIFFTAG_IMAGEWIDTH, static_cast<std::uint32_t>(width));
  TIFFSetField(file, TIFFTAG_IMAGELENGTH, static_cast<std::uint32_t>(height));
  TIFFSetField(file, TIFFTAG_SAMPLESPERPIXEL, static_cast<std::uint16_t>(channels));
  TIFFSetField(file, TIFFTAG_BITSPERSAMPLE, static_cast<std::uint16_t>(8));
  TIFFSetField(file, TIFFTAG_PHOTOMETRIC, PHOTOMETRIC_RGB);
  TIFFSetField(file, TIFFTAG_PLANARCONFIG, PLANARCONFIG_CONTIG);
  TIFFSetField(file, TIFFTAG_COMPRESSION, COMPRESSION_LZW);
  TIFFSetField(file, TIFFTAG_ROWSPERSTRIP, static_cast<std::uint32_t>(1));
  if (channels == 4) {
    const std::uint16_t extra[] = {EXTRASAMPLE_UNASSALPHA};
    TIFFSetField(file, TIFFTAG_EXTRASAMPLES, 1, extra);
  }
  Bytes row(static_cast<std::size_t>(width * channels));
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) {
      for (int c = 0; c < channels; ++c) row[x * channels + c] = source[(y * width + x) * 4 + c];
    }
    TIFFWriteScanline(file, row.data(), static_cast<std::uint32_t>(y), 0);
  }
  TIFFClose(file);
  std::ifstream in(path, std::ios::binary);
  Bytes out((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  std::remove(path);
  return out;
}

Bytes webp(int width, int height, bool alpha, const Bytes& rgba) {
  const Bytes source = orGradient(rgba, width, height);
  std::uint8_t* output = nullptr;
  std::size_t size = 0;
  if (alpha) {
    size = WebPEncodeLosslessRGBA(source.data(), width, height, width * 4, &output);
  } else {
    Bytes rgb;
    for (std::size_t i = 0; i < source.size(); i += 4)
      rgb.insert(rgb.end(), source.begin() + i, source.begin() + i + 3);
    size = WebPEncodeLosslessRGB(rgb.data(), width, height, width * 3, &output);
  }
  Bytes out(output, output + size);
  WebPFree(output);
  return out;
}

}  // namespace test_images
