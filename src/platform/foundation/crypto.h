// Hashing, base64, randomness and UUIDs: the small cryptographic services the rest of the library
// leans on (public-key pin hashes, cache keys, multipart boundaries, vendor identifiers).
//
// Hashes run on OpenSSL's EVP interface with algorithms fetched once per process; every function
// here is safe to call from any thread.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

// ---- digests ----

std::array<std::uint8_t, 16> ZRBMD5(std::span<const std::uint8_t> bytes);
std::array<std::uint8_t, 16> ZRBMD5(std::string_view bytes);
std::array<std::uint8_t, 32> ZRBSHA256(std::span<const std::uint8_t> bytes);
std::array<std::uint8_t, 32> ZRBSHA256(std::string_view bytes);

// An incremental SHA-256. Creating one costs no algorithm look-up; final() returns the digest of
// everything passed to update() since construction or the previous final(), and leaves the context
// ready to hash a new message. Not for concurrent use by several threads.
class ZRBSHA256Context {
 public:
  static constexpr std::size_t kDigestLength = 32;

  ZRBSHA256Context();
  ~ZRBSHA256Context();
  ZRBSHA256Context(ZRBSHA256Context&& other) noexcept;
  ZRBSHA256Context& operator=(ZRBSHA256Context&& other) noexcept;
  ZRBSHA256Context(const ZRBSHA256Context&) = delete;
  ZRBSHA256Context& operator=(const ZRBSHA256Context&) = delete;

  void update(std::span<const std::uint8_t> bytes);
  void update(std::string_view bytes);
  std::array<std::uint8_t, kDigestLength> final();

 private:
  void restartIfFinished();

  void* ctx_;  // EVP_MD_CTX, kept out of the header so that users need no OpenSSL headers
  bool finished_ = false;
};

// Two hex digits per byte, no separators.
std::string ZRBHexString(std::span<const std::uint8_t> bytes, bool lowercase = true);

// ---- base64 (standard alphabet, '=' padding) ----

// The platform's encoding options. Without a line-length option the output is one line; with one,
// lines are separated (not terminated) by the chosen ending, CR LF when neither ending is chosen.
enum ZRBBase64EncodingOptions : unsigned long {
  ZRBBase64Encoding64CharacterLineLength = 1UL << 0,
  ZRBBase64Encoding76CharacterLineLength = 1UL << 1,
  ZRBBase64EncodingEndLineWithCarriageReturn = 1UL << 4,
  ZRBBase64EncodingEndLineWithLineFeed = 1UL << 5,
};

enum ZRBBase64DecodingOptions : unsigned long {
  // Skip every character outside the alphabet (whitespace, line breaks, anything else) before
  // decoding what remains.
  ZRBBase64DecodingIgnoreUnknownCharacters = 1UL << 0,
};

std::string ZRBBase64Encode(std::span<const std::uint8_t> bytes, unsigned long options = 0);
std::string ZRBBase64Encode(std::string_view bytes, unsigned long options = 0);

// Strict (options 0): the text must be whole 4-character groups of the alphabet with correct
// padding, so unpadded text, stray characters or '=' anywhere but the end give nullopt. Lenient:
// unknown characters are dropped first, then the same rules apply to the rest. Non-zero bits left
// over in the last group are ignored.
std::optional<std::vector<std::uint8_t>> ZRBBase64Decode(std::string_view text, unsigned long options = 0);

// ---- randomness (OpenSSL's CSPRNG; aborts rather than return predictable numbers) ----

// Uniform over all 32-bit values.
std::uint32_t ZRBRandomUInt32();
// Uniform over [0, upperBound), without modulo bias; 0 when upperBound is below 2.
std::uint32_t ZRBRandomUniform(std::uint32_t upperBound);
std::vector<std::uint8_t> ZRBRandomBytes(std::size_t count);
void ZRBRandomFill(std::span<std::uint8_t> out);

// ---- UUIDs, in the platform's textual form: upper-case hex, 8-4-4-4-12 ----

// A new random (version 4, RFC 4122 variant) UUID.
std::string ZRBUUIDString();
// The given bytes formatted as a UUID, unchanged (no version or variant bits are set), so that a
// value derived from stable input gives a stable identifier.
std::string ZRBUUIDStringFromBytes(const std::array<std::uint8_t, 16>& bytes);
