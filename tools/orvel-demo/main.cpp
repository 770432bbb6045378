// orvel-demo [SIZE_MIB]: the library end to end without a network. Prints the version and the
// settings, then starts an HTTPS server on 127.0.0.1 with a freshly generated root, intermediate and
// leaf, and fetches a JSON document and a large file (64 MiB unless given) from it with `orvel get
// --cacert ROOT`: the status and header fields of the first, the document itself, and the size,
// SHA-256 and throughput of the second.
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <string_view>
#include <vector>

#include "orvel/commands.h"
#include "orvel/get_output.h"
#include "platform/foundation/crypto.h"
#include "support/test_pki.h"
#include "support/test_server.h"

namespace {

constexpr std::string_view kDocument = R"({
  "device": {
    "model": "ORV-200",
    "serial": "ORV200-0042-7731",
    "firmware": "4.2.1"
  },
  "camera": {
    "recording": true,
    "resolution": [1920, 1080],
    "framesPerSecond": 30
  },
  "storage": {
    "totalBytes": 137438953472,
    "freeBytes": 51539607552
  }
}
)";

int get(std::vector<std::string> words) {
  std::vector<std::string_view> arguments(words.begin(), words.end());
  return orvelGetCommand(arguments);
}

void heading(const char* text) {
  std::printf("\n== %s\n", text);
  std::fflush(stdout);
}

// Size and lower-case hex SHA-256 of a file, read in pieces.
std::pair<std::uint64_t, std::string> sizeAndDigest(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  ZRBSHA256Context context;
  std::vector<char> buffer(1 << 20);
  std::uint64_t size = 0;
  while (in.read(buffer.data(), static_cast<std::streamsize>(buffer.size())) || in.gcount() > 0) {
    auto count = static_cast<std::size_t>(in.gcount());
    context.update(std::string_view(buffer.data(), count));
    size += count;
  }
  auto digest = context.final();
  return {size, ZRBHexString(digest)};
}

}  // namespace

int main(int argc, char** argv) {
  std::uint64_t sizeMiB = argc > 1 ? std::strtoull(argv[1], nullptr, 10) : 64;
  if (sizeMiB == 0) {
    std::fprintf(stderr, "usage: orvel-demo [SIZE_MIB]\n");
    return 2;
  }
  if (int status = orvelVersionCommand({}); status != 0) return status;
  if (int status = orvelSettingsCommand({}); status != 0) return status;

  heading("HTTPS server on 127.0.0.1 with a generated PKI (root -> intermediate -> leaf, P-256)");
  auto chain = ZRBTestPKI::makeChain(ZRBTestKeyType::ECP256);
  auto files = ZRBTestPKI::writeServerFiles(chain);
  auto root = files.root.string();

  ZRBTestServer server(ZRBTestServerOptions{.tls = chain});
  ZRBTestResponse document = ZRBTestResponse::json(200, std::string(kDocument));
  document.headers.add("Cache-Control", "no-cache");
  document.headers.add("ETag", "\"status-1\"");
  server.respond("GET", "/status.json", document);
  std::uint64_t size = sizeMiB << 20;
  server.serveRanges("/large.bin", ZRBTestRangeOptions{.body = ZRBTestBodySource::pattern(size),
                                                       .etag = std::string("\"large-1\"")});
  server.start();
  std::printf("serving %s, trusting only %s\n", server.baseURL().c_str(), root.c_str());

  heading("orvel get -i --cacert ROOT /status.json");
  int status = get({"-i", "--cacert", root, server.url("/status.json")});

  if (status == 0) {
    heading("orvel get --cacert ROOT -o FILE /large.bin");
    auto output = files.directory / "large.bin";
    auto started = std::chrono::steady_clock::now();
    status = get({"--cacert", root, "-o", output.string(), server.url("/large.bin")});
    double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
    if (status == 0) {
      auto [received, digest] = sizeAndDigest(output);
      bool intact = received == size && digest == ZRBTestPatternSHA256(0, size);
      std::printf("size        %llu bytes (%s)\n", static_cast<unsigned long long>(received),
                  orvelByteCount(static_cast<std::int64_t>(received)).c_str());
      std::printf("sha-256     %s (%s)\n", digest.c_str(), intact ? "matches what was served" : "DIFFERS");
      std::printf("throughput  %s/s in %.2f s\n",
                  orvelByteCount(static_cast<std::int64_t>(static_cast<double>(received) / seconds)).c_str(),
                  seconds);
      if (!intact) status = 1;
    }
  }

  server.stop();
  std::error_code ignored;
  std::filesystem::remove_all(files.directory, ignored);
  return status;
}
