// Pictures for the image benchmarks, generated at start-up: photo-like content (smooth gradients
// with a little deterministic noise, opaque) encoded with libpng and libjpeg-turbo themselves.
#pragma once

#include <png.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <vector>

// jpeglib.h needs FILE and size_t declared first.
#include <jpeglib.h>

namespace bench_pictures {

using Bytes = std::vector<std::uint8_t>;

// A photo-like picture: smooth gradients with a little deterministic noise, opaque.
inline Bytes picture(int width, int height) {
  Bytes rgba(static_cast<std::size_t>(width) * height * 4);
  std::uint32_t state = 12345;
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) {
      state = state * 1103515245 + 12345;
      const int noise = static_cast<int>(state >> 28);
      std::uint8_t* p = rgba.data() + (static_cast<std::size_t>(y) * width + x) * 4;
      p[0] = static_cast<std::uint8_t>((x * 255 / width + noise) & 255);
      p[1] = static_cast<std::uint8_t>((y * 255 / height + noise) & 255);
      p[2] = static_cast<std::uint8_t>(((x + y) * 127 / (width + height) + 64 + noise) & 255);
      p[3] = 255;
    }
  }
  return rgba;
}

inline Bytes encodePNG(int width, int height) {
  const Bytes rgba = picture(width, height);
  png_image image{};
  image.version = PNG_IMAGE_VERSION;
  image.width = static_cast<png_uint_32>(width);
  image.height = static_cast<png_uint_32>(height);
  image.format = PNG_FORMAT_RGBA;
  png_alloc_size_t size = 0;
  png_image_write_to_memory(&image, nullptr, &size, 0, rgba.data(), 0, nullptr);
  Bytes out(size);
  png_image_write_to_memory(&image, out.data(), &size, 0, rgba.data(), 0, nullptr);
  out.resize(size);
  return out;
}

inline Bytes encodeJPEG(int width, int height) {
  const Bytes rgba = picture(width, height);
  jpeg_compress_struct info;
  jpeg_error_mgr errors;
  info.err = jpeg_std_error(&errors);
  jpeg_create_compress(&info);
  unsigned char* buffer = nullptr;
  unsigned long size = 0;
  jpeg_mem_dest(&info, &buffer, &size);
  info.image_width = static_cast<JDIMENSION>(width);
  info.image_height = static_cast<JDIMENSION>(height);
  info.input_components = 4;
  info.in_color_space = JCS_EXT_RGBA;
  jpeg_set_defaults(&info);
  jpeg_set_quality(&info, 90, TRUE);
  jpeg_start_compress(&info, TRUE);
  while (info.next_scanline < info.image_height) {
    JSAMPROW row =
        const_cast<std::uint8_t*>(rgba.data()) + static_cast<std::size_t>(info.next_scanline) * width * 4;
    jpeg_write_scanlines(&info, &row, 1);
  }
  jpeg_finish_compress(&info);
  jpeg_destroy_compress(&info);
  Bytes out(buffer, buffer + size);
  std::free(buffer);
  return out;
}

}  // namespace bench_pictures
