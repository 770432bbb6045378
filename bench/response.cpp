// Response decoding: each response serializer (or the parser it hands out) side by side with the
// library a caller would otherwise use on the same bytes, in the same run; the ratios are printed at
// the end.
//   - the JSON response serializer (validation and decoding) against nlohmann::json::parse, on the
//     ~1 MB and ~200-byte API documents of the JSON benchmark;
//   - ZRBXMLParser with a delegate that does nothing against expat with empty handlers, on a ~1 MB
//     document;
//   - the image serializer without inflation against libpng and libjpeg-turbo decoding the same
//     1920 x 1080 PNG and JPEG straight to RGBA. Inflation's cost is printed on its own: the
//     serializer with and without it on a 1024 x 1024 PNG and JPEG (the largest it still draws)
//     and on the 1920 x 1080 PNG (which it hands out as decoded).
// A new case adds its two benchmarks and one line to kComparisons.
#include <benchmark/benchmark.h>
#include <expat.h>

#include <cstdio>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>

#include "http/image_response_serializer.h"
#include "http/json_response_serializer.h"
#include "platform/foundation/xml_parser.h"
#include "support/json_documents.h"
#include "support/pictures.h"
#include "support/rate_reporter.h"

namespace {

ZRBURLResponsePtr responseFor(const char* contentType) {
  return ZRBHTTPURLResponse::make(ZRBURL::URLWithString("https://api.example.com/v2/devices"), 200,
                                  "HTTP/1.1",
                                  ZRBValue::dictionary({{"Content-Type", ZRBValue(contentType)}}));
}

// ---- JSON ----

void jsonSerializer(benchmark::State& state, const std::string& document) {
  auto serializer = ZRBHS_JSONResponseSerializer::serializer();
  ZRBURLResponsePtr response = responseFor("application/json; charset=utf-8");
  ZRBValue body = ZRBValue::data(document);
  for (auto _ : state) {
    ZRBErrorPtr error;
    ZRBValue object = serializer->responseObjectForResponse(response, body, &error);
    if (object.isAbsent() || error) state.SkipWithError("decode failed");
    benchmark::DoNotOptimize(object);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * document.size()));
}

void jsonNlohmann(benchmark::State& state, const std::string& document) {
  for (auto _ : state) {
    nlohmann::json value = nlohmann::json::parse(document);
    benchmark::DoNotOptimize(value);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * document.size()));
}

void BM_JSONSerializer1MB(benchmark::State& s) { jsonSerializer(s, bench_json::large()); }
void BM_JSONNlohmann1MB(benchmark::State& s) { jsonNlohmann(s, bench_json::large()); }
void BM_JSONSerializer200B(benchmark::State& s) { jsonSerializer(s, bench_json::small()); }
void BM_JSONNlohmann200B(benchmark::State& s) { jsonNlohmann(s, bench_json::small()); }

// ---- XML ----

// A device listing as an API would send it: attributes, text, entities, a comment and CDATA.
const std::string& xmlDocument() {
  static const std::string document = [] {
    std::string out = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<devices page=\"1\" total=\"9000\">\n";
    for (int i = 0; out.size() < 1000000; ++i) {
      std::string id = std::to_string(100000 + i);
      out += "  <device id=\"" + id + "\" model=\"ZC-200 Pro\" online=\"" + (i % 3 ? "true" : "false") +
             "\">\n    <name>Camera " + id + " &amp; porch</name>\n    <firmware>4.12." +
             std::to_string(i % 17) + "</firmware>\n    <location lat=\"48." + std::to_string(i % 1000) +
             "\" lon=\"2." + std::to_string(i % 997) +
             "\"/>\n    <!-- seen at 2024-05-01 -->\n    <note><![CDATA[<motion> zone " +
             std::to_string(i % 9) + "]]></note>\n  </device>\n";
    }
    return out + "</devices>\n";
  }();
  return document;
}

void BM_XMLParserEmptyDelegate(benchmark::State& state) {
  ZRBValue body = ZRBValue::data(xmlDocument());
  auto delegate = std::make_shared<ZRBXMLParserDelegate>();
  for (auto _ : state) {
    ZRBXMLParser parser(body);
    parser.setDelegate(delegate);
    if (!parser.parse()) state.SkipWithError("parse failed");
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * xmlDocument().size()));
}

void BM_XMLExpatEmptyHandlers(benchmark::State& state) {
  const std::string& document = xmlDocument();
  for (auto _ : state) {
    XML_Parser parser = XML_ParserCreate(nullptr);
    XML_SetElementHandler(
        parser, [](void*, const XML_Char*, const XML_Char**) {}, [](void*, const XML_Char*) {});
    XML_SetCharacterDataHandler(parser, [](void*, const XML_Char*, int) {});
    XML_SetCdataSectionHandler(
        parser, [](void*) {}, [](void*) {});
    XML_SetCommentHandler(parser, [](void*, const XML_Char*) {});
    XML_SetProcessingInstructionHandler(parser, [](void*, const XML_Char*, const XML_Char*) {});
    if (XML_Parse(parser, document.data(), static_cast<int>(document.size()), XML_TRUE) != XML_STATUS_OK) {
      state.SkipWithError("parse failed");
    }
    XML_ParserFree(parser);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * document.size()));
}

BENCHMARK(BM_JSONSerializer1MB);
BENCHMARK(BM_JSONNlohmann1MB);
BENCHMARK(BM_JSONSerializer200B);
BENCHMARK(BM_JSONNlohmann200B);
BENCHMARK(BM_XMLParserEmptyDelegate);
BENCHMARK(BM_XMLExpatEmptyHandlers);

// ---- images ----

struct Sample {
  bench_pictures::Bytes bytes;
  ZRBValue body;
  ZRBURLResponsePtr response;
};

Sample sample(bench_pictures::Bytes bytes, const char* mimeType) {
  Sample s;
  s.body = ZRBValue::data(bytes);
  s.bytes = std::move(bytes);
  s.response =
      ZRBHTTPURLResponse::make(ZRBURL::URLWithString("https://cdn.example.com/picture"), 200, "HTTP/1.1",
                               ZRBValue::dictionary({{"Content-Type", ZRBValue(mimeType)}}));
  return s;
}

const Sample& largePNG() {
  static const Sample s = sample(bench_pictures::encodePNG(1920, 1080), "image/png");
  return s;
}
const Sample& largeJPEG() {
  static const Sample s = sample(bench_pictures::encodeJPEG(1920, 1080), "image/jpeg");
  return s;
}
const Sample& squarePNG() {
  static const Sample s = sample(bench_pictures::encodePNG(1024, 1024), "image/png");
  return s;
}
const Sample& squareJPEG() {
  static const Sample s = sample(bench_pictures::encodeJPEG(1024, 1024), "image/jpeg");
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

struct Comparison {
  const char* label;
  const char* ours;
  const char* baseline;
  const char* baselineName;
  double target;
};

const Comparison kComparisons[] = {
    {"JSON serializer 1 MB", "BM_JSONSerializer1MB", "BM_JSONNlohmann1MB", "nlohmann::json::parse", 3.0},
    {"JSON serializer 200 B", "BM_JSONSerializer200B", "BM_JSONNlohmann200B", "nlohmann::json::parse", 3.0},
    {"XML parser 1 MB, empty delegate", "BM_XMLParserEmptyDelegate", "BM_XMLExpatEmptyHandlers",
     "expat with empty handlers", 0.9},
    {"PNG 1920x1080 through the image serializer", "BM_PNG1080p_Serializer", "BM_PNG1080p_Libpng",
     "libpng to RGBA", 0.9},
    {"JPEG 1920x1080 through the image serializer", "BM_JPEG1080p_Serializer", "BM_JPEG1080p_LibjpegTurbo",
     "libjpeg-turbo to RGBA", 0.9},
};

// Inflation against the same serializer without it: its extra cost, not a target.
const Comparison kInflationCosts[] = {
    {"PNG 1920x1080 (too large, not drawn)", "BM_PNG1080p_SerializerInflating", "BM_PNG1080p_Serializer", "",
     0},
    {"PNG 1024x1024", "BM_PNG1024_SerializerInflating", "BM_PNG1024_Serializer", "", 0},
    {"JPEG 1024x1024", "BM_JPEG1024_SerializerInflating", "BM_JPEG1024_Serializer", "", 0},
};

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  std::printf("documents: JSON %zu and %zu bytes, XML %zu bytes\n", bench_json::large().size(),
              bench_json::small().size(), xmlDocument().size());
  std::printf("images: PNG %zu and JPEG %zu bytes (1920x1080), PNG %zu and JPEG %zu bytes (1024x1024)\n",
              largePNG().bytes.size(), largeJPEG().bytes.size(), squarePNG().bytes.size(),
              squareJPEG().bytes.size());
  RateReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  benchmark::Shutdown();
  for (const Comparison& c : kComparisons) {
    if (auto ratio = reporter.ratio(c.ours, c.baseline)) {
      std::printf("%s: %.2fx %s (target %.1fx)\n", c.label, *ratio, c.baselineName, c.target);
    }
  }
  for (const Comparison& c : kInflationCosts) {
    if (auto ratio = reporter.ratio(c.ours, c.baseline)) {
      std::printf("inflation, %s: %.2fx the speed without it\n", c.label, *ratio);
    }
  }
  return 0;
}
