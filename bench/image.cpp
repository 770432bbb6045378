// Image decoding: the image response serializer (inflation off) on a 1920 x 1080 PNG and JPEG
// against libpng and libjpeg-turbo decoding the same bytes straight to RGBA, in the same run.
// Inflation's extra cost is measured on its own: the serializer with and without it on a
// 1024 x 1024 PNG and JPEG (the largest size it still draws), and on the 1920 x 1080 PNG (which it
// hands out as decoded). Images are generated at start-up; ratios are printed at the end.
#include <benchmark/benchmark.h>
#include <png.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

// jpeglib.h needs FILE and size_t declared first.
#include <jpeglib.h>

#include "http/image_response_serializer.h"
#include "platform/foundation/url.h"
#include "platform/net/http_url_response.h"
#include "support/rate_reporter.h"

namespace {

using Bytes = std::vector<std::uint8_t>;

// A photo-like picture: smooth gradients with a little deterministic noise, opaque.
Bytes picture(int width, int height) {
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

Bytes encodePNG(int width, int height) {
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

Bytes encodeJPEG(int width, int height) {
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

struct Sample {
  Bytes bytes;
  ZRBValue body;
  ZRBURLResponsePtr response;
};

Sample sample(Bytes bytes, const char* mimeType) {
  Sample s;
  s.body = ZRBValue::data(bytes);
  s.bytes = std::move(bytes);
  s.response =
      ZRBHTTPURLResponse::make(ZRBURL::URLWithString("https://cdn.example.com/picture"), 200, "HTTP/1.1",
                               ZRBValue::dictionary({{"Content-Type", ZRBValue(mimeType)}}));
  return s;
}

const Sample& largePNG() {
  static const Sample s = sample(encodePNG(1920, 1080), "image/png");
  return s;
}
const Sample& largeJPEG() {
  static const Sample s = sample(encodeJPEG(1920, 1080), "image/jpeg");
  return s;
}
const Sample& squarePNG() {
  static const Sample s = sample(encodePNG(1024, 1024), "image/png");
  return s;
}
const Sample& squareJPEG() {
  static const Sample s = sample(encodeJPEG(1024, 1024), "image/jpeg");
  return s;
}

void throughSerializer(benchmark::State& state, const Sample& s, bool inflate) {
  auto serializer = ZRBHS_ImageResponseSerializer::serializer();
  serializer->setAutomaticallyInflatesResponseImage(inflate);
  for (auto _ : state) {
    ZRBErrorPtr error;
    ZRBValue image = serializer->responseObjectForResponse(s.response, s.body, &error);
    if (!image.objectAs<ZRBImage>()) state.SkipWithError("serializer gave no image");
    benchmark::DoNotOptimize(image);
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * s.bytes.size()));
}

void libpngToRGBA(benchmark::State& state, const Sample& s) {
  for (auto _ : state) {
    png_image image{};
    image.version = PNG_IMAGE_VERSION;
    if (!png_image_begin_read_from_memory(&image, s.bytes.data(), s.bytes.size()))
      state.SkipWithError("libpng");
    image.format = PNG_FORMAT_RGBA;
    std::unique_ptr<std::uint8_t[]> pixels(new std::uint8_t[PNG_IMAGE_SIZE(image)]);
    if (!png_image_finish_read(&image, nullptr, pixels.get(), 0, nullptr)) state.SkipWithError("libpng");
    benchmark::DoNotOptimize(pixels.get());
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * s.bytes.size()));
}

void libjpegToRGBA(benchmark::State& state, const Sample& s) {
  for (auto _ : state) {
    jpeg_decompress_struct info;
    jpeg_error_mgr errors;
    info.err = jpeg_std_error(&errors);
    jpeg_create_decompress(&info);
    jpeg_mem_src(&info, s.bytes.data(), static_cast<unsigned long>(s.bytes.size()));
    jpeg_read_header(&info, TRUE);
    info.out_color_space = JCS_EXT_RGBA;
    jpeg_start_decompress(&info);
    const std::size_t stride = static_cast<std::size_t>(info.output_width) * 4;
    std::unique_ptr<std::uint8_t[]> pixels(new std::uint8_t[stride * info.output_height]);
    while (info.output_scanline < info.output_height) {
      JSAMPROW rows[16];
      for (int i = 0; i < 16; ++i) rows[i] = pixels.get() + (info.output_scanline + i) * stride;
      jpeg_read_scanlines(&info, rows, std::min<JDIMENSION>(16, info.output_height - info.output_scanline));
    }
    jpeg_finish_decompress(&info);
    jpeg_destroy_decompress(&info);
    benchmark::DoNotOptimize(pixels.get());
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * s.bytes.size()));
}

void BM_PNG1080p_Serializer(benchmark::State& state) { throughSerializer(state, largePNG(), false); }
void BM_PNG1080p_Libpng(benchmark::State& state) { libpngToRGBA(state, largePNG()); }
void BM_JPEG1080p_Serializer(benchmark::State& state) { throughSerializer(state, largeJPEG(), false); }
void BM_JPEG1080p_LibjpegTurbo(benchmark::State& state) { libjpegToRGBA(state, largeJPEG()); }
void BM_PNG1080p_SerializerInflating(benchmark::State& state) { throughSerializer(state, largePNG(), true); }
void BM_PNG1024_Serializer(benchmark::State& state) { throughSerializer(state, squarePNG(), false); }
void BM_PNG1024_SerializerInflating(benchmark::State& state) { throughSerializer(state, squarePNG(), true); }
void BM_JPEG1024_Serializer(benchmark::State& state) { throughSerializer(state, squareJPEG(), false); }
void BM_JPEG1024_SerializerInflating(benchmark::State& state) {
  throughSerializer(state, squareJPEG(), true);
}

BENCHMARK(BM_PNG1080p_Serializer)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_PNG1080p_Libpng)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_JPEG1080p_Serializer)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_JPEG1080p_LibjpegTurbo)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_PNG1080p_SerializerInflating)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_PNG1024_Serializer)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_PNG1024_SerializerInflating)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_JPEG1024_Serializer)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_JPEG1024_SerializerInflating)->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  std::printf(
      "images: PNG %zu bytes and JPEG %zu bytes (1920 x 1080), PNG %zu and JPEG %zu bytes (1024 x 1024)\n",
      largePNG().bytes.size(), largeJPEG().bytes.size(), squarePNG().bytes.size(), squareJPEG().bytes.size());
  RateReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  benchmark::Shutdown();

  auto ratio = [&](const char* label, const std::string& ours, const std::string& theirs,
                   const char* against) {
    if (auto r = reporter.ratio(ours, theirs)) std::printf("%s: %.2fx %s\n", label, *r, against);
  };
  ratio("png 1920x1080 decode", "BM_PNG1080p_Serializer", "BM_PNG1080p_Libpng", "libpng");
  ratio("jpeg 1920x1080 decode", "BM_JPEG1080p_Serializer", "BM_JPEG1080p_LibjpegTurbo", "libjpeg-turbo");
  ratio("png 1920x1080 inflating (skipped above 1024x1024)", "BM_PNG1080p_SerializerInflating",
        "BM_PNG1080p_Serializer", "without inflation");
  ratio("png 1024x1024 inflating", "BM_PNG1024_SerializerInflating", "BM_PNG1024_Serializer",
        "without inflation");
  ratio("jpeg 1024x1024 inflating", "BM_JPEG1024_SerializerInflating", "BM_JPEG1024_Serializer",
        "without inflation");
  return 0;
}
