// Public-suffix lookups: ZRB_GetRegistryLength against libpsl's psl_unregistrable_domain on the
// same million host names, in the same run. The names are generated deterministically from the
// list's rules: wildcards filled in, exceptions and random labels prepended, some unknown
// top-level labels, some upper case. libpsl runs twice: over the list file and over the
// precompiled DAFSA file of the same package. At the end the speed ratios are printed.
//
// libpsl expects lower-case input and does not fold case itself; it gets the names as they are,
// so it skips work that ours does.
#include "pinning/registry/registry.h"

#include <benchmark/benchmark.h>
#include <libpsl.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "support/rate_reporter.h"

namespace {

constexpr size_t kNames = 1000000;

struct Random {
  std::uint64_t state = 0x2545F4914F6CDD1DULL;
  std::uint64_t next() {
    state = state * 6364136223846793005ULL + 1442695040888963407ULL;
    return state >> 33;
  }
  std::uint64_t below(std::uint64_t n) { return next() % n; }
};

std::string randomLabel(Random& r) {
  static const char kAlphabet[] = "abcdefghijklmnopqrstuvwxyz0123456789";
  std::string label(2 + r.below(10), 'a');
  for (char& c : label) c = kAlphabet[r.below(36)];
  return label;
}

std::vector<std::string> readAsciiRules() {
  std::ifstream in(ORVELKIT_PUBLIC_SUFFIX_LIST);
  std::vector<std::string> rules;
  std::string line;
  while (std::getline(in, line)) {
    std::istringstream words(line);
    std::string rule;
    if (!(words >> rule) || rule.rfind("//", 0) == 0) continue;
    bool ascii = true;
    for (char c : rule) ascii = ascii && static_cast<unsigned char>(c) < 0x80;
    if (ascii) rules.push_back(rule);
  }
  return rules;
}

const std::vector<std::string>& names() {
  static const std::vector<std::string> all = [] {
    std::vector<std::string> rules = readAsciiRules();
    Random r;
    std::vector<std::string> out;
    out.reserve(kNames);
    while (out.size() < kNames && !rules.empty()) {
      std::string host = rules[r.below(rules.size())];
      if (host[0] == '!') host.erase(0, 1);
      if (host[0] == '*') host.replace(0, 1, randomLabel(r));
      for (auto extra = r.below(4); extra > 0; --extra) host = randomLabel(r) + "." + host;
      auto roll = r.below(100);
      if (roll < 5) {
        host = host.substr(0, host.rfind('.') + 1) + "zz" + randomLabel(r);  // an unknown top level
      } else if (roll < 15) {
        for (char& c : host) c = static_cast<char>(c >= 'a' && c <= 'z' ? c - 'a' + 'A' : c);
      }
      out.push_back(std::move(host));
    }
    return out;
  }();
  return all;
}

void BM_Ours(benchmark::State& state) {
  ZRB_InitializeDomainRegistry();
  const auto& hosts = names();
  for (auto _ : state) {
    size_t total = 0;
    for (const auto& host : hosts) total += ZRB_GetRegistryLength(host.c_str());
    benchmark::DoNotOptimize(total);
  }
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * hosts.size()));
}

// The floor both lookups stand on: reading each name once (the names do not fit in the caches).
void BM_ReadNames(benchmark::State& state) {
  const auto& hosts = names();
  for (auto _ : state) {
    size_t total = 0;
    for (const auto& host : hosts) total += std::strlen(host.c_str());
    benchmark::DoNotOptimize(total);
  }
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * hosts.size()));
}

void libpsl(benchmark::State& state, const char* path) {
  psl_ctx_t* psl = psl_load_file(path);
  if (psl == nullptr) {
    state.SkipWithError("libpsl could not load the list");
    return;
  }
  const auto& hosts = names();
  for (auto _ : state) {
    size_t total = 0;
    for (const auto& host : hosts) {
      const char* suffix = psl_unregistrable_domain(psl, host.c_str());
      total += suffix != nullptr ? std::strlen(suffix) : 0;
    }
    benchmark::DoNotOptimize(total);
  }
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * hosts.size()));
  psl_free(psl);
}

void BM_LibpslList(benchmark::State& state) { libpsl(state, ORVELKIT_PUBLIC_SUFFIX_LIST); }
void BM_LibpslDafsa(benchmark::State& state) { libpsl(state, ORVELKIT_PUBLIC_SUFFIX_DAFSA); }

BENCHMARK(BM_ReadNames)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Ours)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_LibpslList)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_LibpslDafsa)->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  std::printf("host names: %zu\n", names().size());
  RateReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  benchmark::Shutdown();

  for (const auto& [name, rate] : reporter.rates())
    std::printf("%-16s %7.1f ns per name\n", name.c_str(), 1e9 / rate);
  for (const char* baseline : {"BM_LibpslList", "BM_LibpslDafsa"}) {
    if (auto r = reporter.ratio("BM_Ours", baseline))
      std::printf("registry lookup: %.2fx %s\n", *r, baseline + 3);
  }
  return 0;
}
