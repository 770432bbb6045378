// Trust evaluation: a three-certificate RSA 2048 chain (leaf and intermediate from the peer, the
// root as the only anchor, SSL server policy with host name) evaluated through ZRBSecTrust, against
// X509_verify_cert called directly with an equivalent prebuilt store, purpose and host in the same
// run. Pinned validation (zrb_verifyPublicKeyPin and the validator's evaluateTrust, the leaf's pin
// configured so that the whole chain is looked up) runs over the same chain with a warm hash cache,
// cold (every hash computed and the cache file written), and on two threads sharing one cache. At
// the end the ratios against the direct baseline are printed.
#include <benchmark/benchmark.h>
#include <openssl/evp.h>
#include <openssl/x509.h>
#include <openssl/x509_vfy.h>
#include <openssl/x509v3.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <set>
#include <string>

#include "pinning/pin_verifier.h"
#include "pinning/pinning_validator.h"
#include "pinning/spki_hash_cache.h"
#include "platform/security/sec_key.h"
#include "platform/security/sec_trust.h"
#include "platform/system/file_manager.h"
#include "support/rate_reporter.h"

namespace {

struct Issued {
  X509* certificate = nullptr;
  EVP_PKEY* key = nullptr;
};

void require(bool ok, const char* what) {
  if (!ok) {
    std::fprintf(stderr, "bench_trust: %s failed\n", what);
    std::exit(1);
  }
}

void extend(X509* subject, X509* issuer, int nid, const char* value) {
  X509V3_CTX ctx;
  X509V3_set_ctx_nodb(&ctx);
  X509V3_set_ctx(&ctx, issuer, subject, nullptr, nullptr, 0);
  X509_EXTENSION* extension = X509V3_EXT_conf_nid(nullptr, &ctx, nid, value);
  require(extension && X509_add_ext(subject, extension, -1) == 1, value);
  X509_EXTENSION_free(extension);
}

Issued issue(const char* commonName, const Issued* issuer, bool ca) {
  Issued out;
  out.key = EVP_PKEY_Q_keygen(nullptr, nullptr, "RSA", static_cast<std::size_t>(2048));
  require(out.key != nullptr, "keygen");
  X509* x = out.certificate = X509_new();
  X509_set_version(x, X509_VERSION_3);
  ASN1_INTEGER_set(X509_get_serialNumber(x), ca ? (issuer ? 2 : 1) : 3);
  X509_NAME_add_entry_by_txt(X509_get_subject_name(x), "CN", MBSTRING_UTF8,
                             reinterpret_cast<const unsigned char*>(commonName), -1, -1, 0);
  X509_set_issuer_name(x, X509_get_subject_name(issuer ? issuer->certificate : x));
  X509_gmtime_adj(X509_getm_notBefore(x), -3600);
  X509_gmtime_adj(X509_getm_notAfter(x), 30L * 24 * 3600);
  X509_set_pubkey(x, out.key);
  X509* signer = issuer ? issuer->certificate : x;
  extend(x, signer, NID_subject_key_identifier, "hash");
  extend(x, signer, NID_authority_key_identifier, "keyid:always");
  if (ca) {
    extend(x, signer, NID_basic_constraints, "critical,CA:TRUE");
    extend(x, signer, NID_key_usage, "critical,keyCertSign,cRLSign");
  } else {
    extend(x, signer, NID_basic_constraints, "critical,CA:FALSE");
    extend(x, signer, NID_ext_key_usage, "serverAuth");
    extend(x, signer, NID_subject_alt_name, "DNS:localhost,IP:127.0.0.1");
  }
  require(X509_sign(x, issuer ? issuer->key : out.key, EVP_sha256()) > 0, "sign");
  return out;
}

struct Chain {
  Issued root, intermediate, leaf;
  ZRBSecCertificatePtr rootCertificate, intermediateCertificate, leafCertificate;
};

const Chain& chain() {
  static const Chain c = [] {
    Chain made;
    made.root = issue("Bench Root", nullptr, true);
    made.intermediate = issue("Bench Intermediate", &made.root, true);
    made.leaf = issue("localhost", &made.intermediate, false);
    made.rootCertificate = ZRBSecCertificate::createWithX509(made.root.certificate);
    made.intermediateCertificate = ZRBSecCertificate::createWithX509(made.intermediate.certificate);
    made.leafCertificate = ZRBSecCertificate::createWithX509(made.leaf.certificate);
    return made;
  }();
  return c;
}

// What a TLS client does per handshake: a trust for the peer's certificates, the pinned root as
// anchor, one evaluation.
void BM_Trust_Ours(benchmark::State& state) {
  const Chain& c = chain();
  auto policy = ZRBSecPolicy::createSSL(true, "localhost");
  for (auto _ : state) {
    auto trust = ZRBSecTrust::createWithCertificates({c.leafCertificate, c.intermediateCertificate}, policy);
    trust->setAnchorCertificates({c.rootCertificate});
    ZRBSecTrustResultType result = ZRBSecTrustResultInvalid;
    trust->evaluate(&result);
    if (result != ZRBSecTrustResultUnspecified) state.SkipWithError("chain not trusted");
    benchmark::DoNotOptimize(trust);
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_Trust_Ours);

// The same trust evaluated again and again (no set-up per evaluation).
void BM_Trust_OursReused(benchmark::State& state) {
  const Chain& c = chain();
  auto trust = ZRBSecTrust::createWithCertificates({c.leafCertificate, c.intermediateCertificate},
                                                   ZRBSecPolicy::createSSL(true, "localhost"));
  trust->setAnchorCertificates({c.rootCertificate});
  for (auto _ : state) {
    ZRBSecTrustResultType result = ZRBSecTrustResultInvalid;
    trust->evaluate(&result);
    if (result != ZRBSecTrustResultUnspecified) state.SkipWithError("chain not trusted");
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_Trust_OursReused);

void BM_Trust_Direct(benchmark::State& state) {
  const Chain& c = chain();
  X509_STORE* store = X509_STORE_new();
  X509_STORE_add_cert(store, c.root.certificate);
  STACK_OF(X509)* untrusted = sk_X509_new_null();
  sk_X509_push(untrusted, c.intermediate.certificate);
  for (auto _ : state) {
    X509_STORE_CTX* ctx = X509_STORE_CTX_new();
    X509_STORE_CTX_init(ctx, store, c.leaf.certificate, untrusted);
    X509_STORE_CTX_set_purpose(ctx, X509_PURPOSE_SSL_SERVER);
    X509_VERIFY_PARAM_set1_host(X509_STORE_CTX_get0_param(ctx), "localhost", 0);
    if (X509_verify_cert(ctx) != 1) state.SkipWithError("chain not trusted");
    X509_STORE_CTX_free(ctx);
  }
  state.SetItemsProcessed(state.iterations());
  sk_X509_free(untrusted);
  X509_STORE_free(store);
}
BENCHMARK(BM_Trust_Direct);

// ---- pinned validation ----

struct Pinning {
  ZRB_PGDSPKIHashCachePtr cache;
  std::vector<PGDPublicKeyAlgorithm> algorithms{PGDPublicKeyAlgorithmRsa2048};
  std::set<ZRB_PGDPin> pins;
  ZRB_PGDPinningValidatorPtr validator;
};

// Set up after the Caches directory is pointed at a temporary folder (main).
Pinning& pinning() {
  static Pinning p = [] {
    const Chain& c = chain();
    Pinning made;
    made.cache = ZRB_PGDSPKIHashCache::initWithIdentifier("bench-spki-hash.cache");
    made.pins = {c.leafCertificate->copyKey()->subjectPublicKeyInfoSHA256(), ZRB_PGDPin{1}};
    ZRB_PGDDomainPolicy policy;
    policy.publicKeyAlgorithms = made.algorithms;
    policy.publicKeyHashes = made.pins;
    ZRB_PGDPinnedDomainPolicies policies;
    policies.set("localhost", std::make_shared<const ZRB_PGDDomainPolicy>(std::move(policy)));
    made.validator = ZRB_PGDPinningValidator::initWithDomainPinningPolicies(std::move(policies), made.cache,
                                                                            false, nullptr, nullptr);
    return made;
  }();
  return p;
}

// The peer's certificates with the root as the only anchor, as BM_Trust_Ours builds them.
ZRBSecTrustPtr peerTrust() {
  const Chain& c = chain();
  auto trust = ZRBSecTrust::createWithCertificates({c.leafCertificate, c.intermediateCertificate},
                                                   ZRBSecPolicy::createBasicX509());
  trust->setAnchorCertificates({c.rootCertificate});
  return trust;
}

void BM_Pin_VerifyWarm(benchmark::State& state) {
  Pinning& p = pinning();
  for (auto _ : state) {
    auto trust = peerTrust();
    if (zrb_verifyPublicKeyPin(trust, "localhost", &p.algorithms, &p.pins, p.cache) !=
        PGDTrustEvaluationResultSuccess)
      state.SkipWithError("pin not found");
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_Pin_VerifyWarm);

void BM_Pin_EvaluateTrustWarm(benchmark::State& state) {
  Pinning& p = pinning();
  for (auto _ : state) {
    auto trust = peerTrust();
    if (p.validator->evaluateTrust(trust, "localhost") != PGDTrustDecisionShouldAllowConnection)
      state.SkipWithError("connection blocked");
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_Pin_EvaluateTrustWarm);

// Every certificate hashed anew and the file rewritten three times; emptying the cache is not timed.
void BM_Pin_VerifyCold(benchmark::State& state) {
  Pinning& p = pinning();
  for (auto _ : state) {
    state.PauseTiming();
    p.cache->resetSubjectPublicKeyInfoDiskCache();
    auto trust = peerTrust();
    state.ResumeTiming();
    if (zrb_verifyPublicKeyPin(trust, "localhost", &p.algorithms, &p.pins, p.cache) !=
        PGDTrustEvaluationResultSuccess)
      state.SkipWithError("pin not found");
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_Pin_VerifyCold);

// Both cores: readers of the cache must not wait for each other.
BENCHMARK(BM_Pin_VerifyWarm)->Name("BM_Pin_VerifyWarm/threads")->Threads(2)->UseRealTime();
BENCHMARK(BM_Trust_Ours)->Name("BM_Trust_Ours/threads")->Threads(2)->UseRealTime();
BENCHMARK(BM_Trust_Direct)->Name("BM_Trust_Direct/threads")->Threads(2)->UseRealTime();

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  chain();  // key generation stays out of the measurements
  const std::string caches =
      std::filesystem::temp_directory_path() / ("bench-trust-" + std::to_string(getpid()));
  ZRBFileManager::defaultManager()->setCachesDirectory(caches);
  pinning();
  RateReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  benchmark::Shutdown();

  auto ratio = [&](const char* label, const std::string& ours) {
    if (auto r = reporter.ratio(ours, "BM_Trust_Direct")) {
      std::printf("%s: ours/direct = %.2f (target >= 0.80)\n", label, *r);
    }
  };
  ratio("trust evaluation, new trust per evaluation", "BM_Trust_Ours");
  ratio("trust evaluation, reused trust", "BM_Trust_OursReused");
  auto time = [&](const char* label, const std::string& ours, const std::string& baseline,
                  const char* target) {
    if (auto r = reporter.ratio(baseline, ours))
      std::printf("%s: time ours/direct = %.2f%s\n", label, *r, target);
  };
  time("pinned, warm cache: zrb_verifyPublicKeyPin", "BM_Pin_VerifyWarm", "BM_Trust_Direct",
       " (target <= 1.10)");
  time("pinned, warm cache: evaluateTrust", "BM_Pin_EvaluateTrustWarm", "BM_Trust_Direct",
       " (target <= 1.10)");
  time("pinned, cold cache (hashes and file writes)", "BM_Pin_VerifyCold", "BM_Trust_Direct", "");
  time("pinned, warm cache, 2 threads (throughput per thread)",
       "BM_Pin_VerifyWarm/threads/real_time/threads:2", "BM_Trust_Direct/threads/real_time/threads:2",
       " (target <= 1.10)");
  time("unpinned trust evaluation, 2 threads", "BM_Trust_Ours/threads/real_time/threads:2",
       "BM_Trust_Direct/threads/real_time/threads:2", "");
  std::filesystem::remove_all(caches);
  return 0;
}
