// Response decoding: each response serializer (or the parser it hands out) side by side with the
// library a caller would otherwise use on the same bytes, in the same run; the ratios are printed at
// the end.
//   - the JSON response serializer (validation and decoding) against nlohmann::json::parse, on the
//     ~1 MB and ~200-byte API documents of the JSON benchmark;
//   - ZRBXMLParser with a delegate that does nothing against expat with empty handlers, on a ~1 MB
//     document.
// A new case adds its two benchmarks and one line to kComparisons.
#include <benchmark/benchmark.h>
#include <expat.h>

#include <cstdio>
#include <nlohmann/json.hpp>
#include <string>

#include "http/json_response_serializer.h"
#include "platform/foundation/xml_parser.h"
#include "support/json_documents.h"
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
};

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  std::printf("documents: JSON %zu and %zu bytes, XML %zu bytes\n", bench_json::large().size(),
              bench_json::small().size(), xmlDocument().size());
  RateReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  benchmark::Shutdown();
  for (const Comparison& c : kComparisons) {
    if (auto ratio = reporter.ratio(c.ours, c.baseline)) {
      std::printf("%s: %.2fx %s (target %.1fx)\n", c.label, *ratio, c.baselineName, c.target);
    }
  }
  return 0;
}
