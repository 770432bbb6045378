#include "platform/foundation/crypto.h"

#include <openssl/evp.h>
#include <openssl/rand.h>

#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <memory>

namespace {

// The digests of this file can only fail when OpenSSL itself is broken or misconfigured (no
// default provider); there is no error to hand back from a function returning a digest.
[[noreturn]] void fatal(const char* what) {
  std::fprintf(stderr, "orvelkit: OpenSSL failure in %s\n", what);
  std::abort();
}

void check(int rc, const char* what) {
  if (rc != 1) fatal(what);
}

// Fetched once and never freed: freeing at exit could run after OpenSSL's own clean-up. Passing a
// fetched algorithm to EVP_DigestInit_ex2 skips the provider look-up that EVP_sha256() costs on
// every initialisation.
const EVP_MD* fetchedDigest(const char* name) {
  EVP_MD* md = EVP_MD_fetch(nullptr, name, nullptr);
  if (!md) fatal(name);
  return md;
}

const EVP_MD* md5Digest() {
  static const EVP_MD* md = fetchedDigest("MD5");
  return md;
}

const EVP_MD* sha256Digest() {
  static const EVP_MD* md = fetchedDigest("SHA256");
  return md;
}

struct MDContextDeleter {
  void operator()(EVP_MD_CTX* ctx) const { EVP_MD_CTX_free(ctx); }
};

// One-shot digests reuse a context per thread: OpenSSL 3 then allocates only the provider's digest
// state per call, where EVP_Digest also allocates and frees a context each time.
EVP_MD_CTX* threadContext() {
  thread_local std::unique_ptr<EVP_MD_CTX, MDContextDeleter> ctx(EVP_MD_CTX_new());
  if (!ctx) fatal("EVP_MD_CTX_new");
  return ctx.get();
}

template <std::size_t N>
std::array<std::uint8_t, N> oneShot(const EVP_MD* md, const void* data, std::size_t length) {
  EVP_MD_CTX* ctx = threadContext();
  std::array<std::uint8_t, N> digest;
  unsigned int written = 0;
  check(EVP_DigestInit_ex2(ctx, md, nullptr), "EVP_DigestInit_ex2");
  check(EVP_DigestUpdate(ctx, data, length), "EVP_DigestUpdate");
  check(EVP_DigestFinal_ex(ctx, digest.data(), &written), "EVP_DigestFinal_ex");
  if (written != N) fatal("digest length");
  return digest;
}

}  // namespace

std::array<std::uint8_t, 16> ZRBMD5(std::span<const std::uint8_t> bytes) {
  return oneShot<16>(md5Digest(), bytes.data(), bytes.size());
}
std::array<std::uint8_t, 16> ZRBMD5(std::string_view bytes) {
  return oneShot<16>(md5Digest(), bytes.data(), bytes.size());
}
std::array<std::uint8_t, 32> ZRBSHA256(std::span<const std::uint8_t> bytes) {
  return oneShot<32>(sha256Digest(), bytes.data(), bytes.size());
}
std::array<std::uint8_t, 32> ZRBSHA256(std::string_view bytes) {
  return oneShot<32>(sha256Digest(), bytes.data(), bytes.size());
}

// ---- ZRBSHA256Context ----

ZRBSHA256Context::ZRBSHA256Context() : ctx_(EVP_MD_CTX_new()) {
  if (!ctx_) fatal("EVP_MD_CTX_new");
  check(EVP_DigestInit_ex2(static_cast<EVP_MD_CTX*>(ctx_), sha256Digest(), nullptr), "EVP_DigestInit_ex2");
}

ZRBSHA256Context::~ZRBSHA256Context() { EVP_MD_CTX_free(static_cast<EVP_MD_CTX*>(ctx_)); }

ZRBSHA256Context::ZRBSHA256Context(ZRBSHA256Context&& other) noexcept
    : ctx_(other.ctx_), finished_(other.finished_) {
  other.ctx_ = nullptr;
}

ZRBSHA256Context& ZRBSHA256Context::operator=(ZRBSHA256Context&& other) noexcept {
  std::swap(ctx_, other.ctx_);
  std::swap(finished_, other.finished_);
  return *this;
}

void ZRBSHA256Context::update(std::span<const std::uint8_t> bytes) {
  restartIfFinished();
  check(EVP_DigestUpdate(static_cast<EVP_MD_CTX*>(ctx_), bytes.data(), bytes.size()), "EVP_DigestUpdate");
}

void ZRBSHA256Context::update(std::string_view bytes) {
  update(std::span(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size()));
}

std::array<std::uint8_t, ZRBSHA256Context::kDigestLength> ZRBSHA256Context::final() {
  restartIfFinished();
  std::array<std::uint8_t, kDigestLength> digest;
  unsigned int written = 0;
  check(EVP_DigestFinal_ex(static_cast<EVP_MD_CTX*>(ctx_), digest.data(), &written), "EVP_DigestFinal_ex");
  finished_ = true;
  return digest;
}

// Restarting lazily spares a context that is thrown away after final() a needless re-initialisation
// (each one allocates the provider's digest state).
void ZRBSHA256Context::restartIfFinished() {
  if (!ctx_) fatal("ZRBSHA256Context used after move");
  if (!finished_) return;
  // A null type restarts with the digest already set: no look-up.
  check(EVP_DigestInit_ex2(static_cast<EVP_MD_CTX*>(ctx_), nullptr, nullptr), "EVP_DigestInit_ex2");
  finished_ = false;
}

// ---- hex ----

std::string ZRBHexString(std::span<const std::uint8_t> bytes, bool lowercase) {
  const char* digits = lowercase ? "0123456789abcdef" : "0123456789ABCDEF";
  std::string out(bytes.size() * 2, '\0');
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    out[2 * i] = digits[bytes[i] >> 4];
    out[2 * i + 1] = digits[bytes[i] & 0x0F];
  }
  return out;
}

// ---- base64 ----

namespace {

constexpr char kBase64Alphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
constexpr std::uint8_t kInvalid = 0xFF;
constexpr std::uint8_t kPad = 0xFE;

constexpr std::array<std::uint8_t, 256> makeDecodeTable() {
  std::array<std::uint8_t, 256> table{};
  for (auto& entry : table) entry = kInvalid;
  for (std::uint8_t i = 0; i < 64; ++i) table[static_cast<unsigned char>(kBase64Alphabet[i])] = i;
  table['='] = kPad;
  return table;
}

constexpr std::array<std::uint8_t, 256> kDecodeTable = makeDecodeTable();

// Decodes whole groups of the alphabet; '=' is accepted only as the last one or two characters.
std::optional<std::vector<std::uint8_t>> decodeStrict(std::string_view text) {
  if (text.size() % 4 != 0) return std::nullopt;
  std::vector<std::uint8_t> out;
  if (text.empty()) return out;
  std::size_t padding = text.back() == '=' ? (text[text.size() - 2] == '=' ? 2 : 1) : 0;
  out.resize(text.size() / 4 * 3 - padding);

  auto* src = reinterpret_cast<const unsigned char*>(text.data());
  std::uint8_t* dst = out.data();
  std::size_t fullGroups = text.size() / 4 - (padding ? 1 : 0);
  for (std::size_t g = 0; g < fullGroups; ++g, src += 4, dst += 3) {
    std::uint8_t a = kDecodeTable[src[0]], b = kDecodeTable[src[1]], c = kDecodeTable[src[2]],
                 d = kDecodeTable[src[3]];
    // Pads and invalid characters both have the top bit set.
    if ((a | b | c | d) & 0x80) return std::nullopt;
    std::uint32_t v = std::uint32_t{a} << 18 | std::uint32_t{b} << 12 | std::uint32_t{c} << 6 | d;
    dst[0] = static_cast<std::uint8_t>(v >> 16);
    dst[1] = static_cast<std::uint8_t>(v >> 8);
    dst[2] = static_cast<std::uint8_t>(v);
  }
  if (padding) {
    std::uint8_t a = kDecodeTable[src[0]], b = kDecodeTable[src[1]];
    std::uint8_t c = padding == 2 ? 0 : kDecodeTable[src[2]];
    if ((a | b | c) & 0x80) return std::nullopt;
    std::uint32_t v = std::uint32_t{a} << 18 | std::uint32_t{b} << 12 | std::uint32_t{c} << 6;
    dst[0] = static_cast<std::uint8_t>(v >> 16);
    if (padding == 1) dst[1] = static_cast<std::uint8_t>(v >> 8);
  }
  return out;
}

}  // namespace

std::string ZRBBase64Encode(std::span<const std::uint8_t> bytes, unsigned long options) {
  std::size_t lineLength = (options & ZRBBase64Encoding64CharacterLineLength)   ? 64
                           : (options & ZRBBase64Encoding76CharacterLineLength) ? 76
                                                                                : 0;
  bool cr = options & ZRBBase64EncodingEndLineWithCarriageReturn;
  bool lf = options & ZRBBase64EncodingEndLineWithLineFeed;
  if (!cr && !lf) cr = lf = true;

  std::size_t encodedLength = (bytes.size() + 2) / 3 * 4;
  std::size_t breaks = lineLength && encodedLength ? (encodedLength - 1) / lineLength : 0;
  std::string out;
  out.resize(encodedLength + breaks * ((cr ? 1 : 0) + (lf ? 1 : 0)));

  char* dst = out.data();
  std::size_t column = 0;
  auto put = [&](char c) {
    if (lineLength && column == lineLength) {
      if (cr) *dst++ = '\r';
      if (lf) *dst++ = '\n';
      column = 0;
    }
    *dst++ = c;
    ++column;
  };

  const std::uint8_t* src = bytes.data();
  std::size_t remaining = bytes.size();
  if (!lineLength) {
    // The common case without line breaks: no per-character bookkeeping.
    for (; remaining >= 3; remaining -= 3, src += 3, dst += 4) {
      std::uint32_t v = std::uint32_t{src[0]} << 16 | std::uint32_t{src[1]} << 8 | src[2];
      dst[0] = kBase64Alphabet[v >> 18];
      dst[1] = kBase64Alphabet[(v >> 12) & 0x3F];
      dst[2] = kBase64Alphabet[(v >> 6) & 0x3F];
      dst[3] = kBase64Alphabet[v & 0x3F];
    }
  } else {
    for (; remaining >= 3; remaining -= 3, src += 3) {
      std::uint32_t v = std::uint32_t{src[0]} << 16 | std::uint32_t{src[1]} << 8 | src[2];
      put(kBase64Alphabet[v >> 18]);
      put(kBase64Alphabet[(v >> 12) & 0x3F]);
      put(kBase64Alphabet[(v >> 6) & 0x3F]);
      put(kBase64Alphabet[v & 0x3F]);
    }
  }
  if (remaining) {
    std::uint32_t v = std::uint32_t{src[0]} << 16 | (remaining == 2 ? std::uint32_t{src[1]} << 8 : 0);
    put(kBase64Alphabet[v >> 18]);
    put(kBase64Alphabet[(v >> 12) & 0x3F]);
    put(remaining == 2 ? kBase64Alphabet[(v >> 6) & 0x3F] : '=');
    put('=');
  }
  return out;
}

std::string ZRBBase64Encode(std::string_view bytes, unsigned long options) {
  return ZRBBase64Encode(std::span(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size()),
                         options);
}

std::optional<std::vector<std::uint8_t>> ZRBBase64Decode(std::string_view text, unsigned long options) {
  if (!(options & ZRBBase64DecodingIgnoreUnknownCharacters)) return decodeStrict(text);
  auto known = [](char c) { return kDecodeTable[static_cast<unsigned char>(c)] != kInvalid; };
  if (std::all_of(text.begin(), text.end(), known)) return decodeStrict(text);
  std::string filtered;
  filtered.reserve(text.size());
  std::copy_if(text.begin(), text.end(), std::back_inserter(filtered), known);
  return decodeStrict(filtered);
}

// ---- randomness ----

void ZRBRandomFill(std::span<std::uint8_t> out) {
  std::uint8_t* dst = out.data();
  std::size_t remaining = out.size();
  while (remaining) {
    int chunk = static_cast<int>(std::min<std::size_t>(remaining, INT_MAX));
    if (RAND_bytes(dst, chunk) != 1) fatal("RAND_bytes");
    dst += chunk;
    remaining -= static_cast<std::size_t>(chunk);
  }
}

std::uint32_t ZRBRandomUInt32() {
  std::uint32_t value;
  ZRBRandomFill(std::span(reinterpret_cast<std::uint8_t*>(&value), sizeof value));
  return value;
}

std::uint32_t ZRBRandomUniform(std::uint32_t upperBound) {
  if (upperBound < 2) return 0;
  // Values below 2^32 mod upperBound would make the low results more likely; draw again.
  std::uint32_t threshold = (0u - upperBound) % upperBound;
  for (;;) {
    std::uint32_t r = ZRBRandomUInt32();
    if (r >= threshold) return r % upperBound;
  }
}

std::vector<std::uint8_t> ZRBRandomBytes(std::size_t count) {
  std::vector<std::uint8_t> out(count);
  ZRBRandomFill(out);
  return out;
}

// ---- UUIDs ----

std::string ZRBUUIDStringFromBytes(const std::array<std::uint8_t, 16>& bytes) {
  static constexpr char kDigits[] = "0123456789ABCDEF";
  std::string out;
  out.reserve(36);
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    if (i == 4 || i == 6 || i == 8 || i == 10) out.push_back('-');
    out.push_back(kDigits[bytes[i] >> 4]);
    out.push_back(kDigits[bytes[i] & 0x0F]);
  }
  return out;
}

std::string ZRBUUIDString() {
  std::array<std::uint8_t, 16> bytes;
  ZRBRandomFill(bytes);
  bytes[6] = static_cast<std::uint8_t>((bytes[6] & 0x0F) | 0x40);  // version 4
  bytes[8] = static_cast<std::uint8_t>((bytes[8] & 0x3F) | 0x80);  // RFC 4122 variant
  return ZRBUUIDStringFromBytes(bytes);
}
