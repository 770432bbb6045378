#include "platform/security/sec_key.h"

#include <openssl/bn.h>
#include <openssl/core_names.h>
#include <openssl/evp.h>
#include <openssl/x509.h>

#include <algorithm>
#include <cstring>
#include <string_view>

#include "platform/foundation/crypto.h"

namespace {

constexpr std::uint8_t kRSA2048Header[] = {0x30, 0x82, 0x01, 0x22, 0x30, 0x0d, 0x06, 0x09,
                                           0x2a, 0x86, 0x48, 0x86, 0xf7, 0x0d, 0x01, 0x01,
                                           0x01, 0x05, 0x00, 0x03, 0x82, 0x01, 0x0f, 0x00};
constexpr std::uint8_t kRSA4096Header[] = {0x30, 0x82, 0x02, 0x22, 0x30, 0x0d, 0x06, 0x09,
                                           0x2a, 0x86, 0x48, 0x86, 0xf7, 0x0d, 0x01, 0x01,
                                           0x01, 0x05, 0x00, 0x03, 0x82, 0x02, 0x0f, 0x00};
constexpr std::uint8_t kSecp256r1Header[] = {0x30, 0x59, 0x30, 0x13, 0x06, 0x07, 0x2a, 0x86, 0x48,
                                             0xce, 0x3d, 0x02, 0x01, 0x06, 0x08, 0x2a, 0x86, 0x48,
                                             0xce, 0x3d, 0x03, 0x01, 0x07, 0x03, 0x42, 0x00};
constexpr std::uint8_t kSecp384r1Header[] = {0x30, 0x76, 0x30, 0x10, 0x06, 0x07, 0x2a, 0x86,
                                             0x48, 0xce, 0x3d, 0x02, 0x01, 0x06, 0x05, 0x2b,
                                             0x81, 0x04, 0x00, 0x22, 0x03, 0x62, 0x00};

// i2d-style encoders write into a buffer they allocate; this copies it out and frees it.
template <typename Encoder>
std::vector<std::uint8_t> encode(Encoder&& encoder) {
  unsigned char* buffer = nullptr;
  int length = encoder(&buffer);
  std::vector<std::uint8_t> out;
  if (length > 0 && buffer) out.assign(buffer, buffer + length);
  OPENSSL_free(buffer);
  return out;
}

// 04 || X || Y whatever point format the key was encoded with (a certificate may carry a
// compressed point; the platform always hands out the uncompressed one).
std::vector<std::uint8_t> uncompressedPoint(EVP_PKEY* key) {
  std::size_t encodedLength = 0;
  if (EVP_PKEY_get_octet_string_param(key, OSSL_PKEY_PARAM_ENCODED_PUBLIC_KEY, nullptr, 0, &encodedLength) !=
          1 ||
      encodedLength < 2) {
    return {};
  }
  std::vector<std::uint8_t> encoded(encodedLength);
  if (EVP_PKEY_get_octet_string_param(key, OSSL_PKEY_PARAM_ENCODED_PUBLIC_KEY, encoded.data(), encoded.size(),
                                      &encodedLength) != 1) {
    return {};
  }
  encoded.resize(encodedLength);
  if (encoded[0] == 0x04) return encoded;
  if (encoded[0] != 0x02 && encoded[0] != 0x03) return {};
  // Compressed: 1 + field size bytes. Rebuild the full point from the affine coordinates.
  int fieldBytes = static_cast<int>(encoded.size() - 1);
  BIGNUM* x = nullptr;
  BIGNUM* y = nullptr;
  std::vector<std::uint8_t> out;
  if (EVP_PKEY_get_bn_param(key, OSSL_PKEY_PARAM_EC_PUB_X, &x) == 1 &&
      EVP_PKEY_get_bn_param(key, OSSL_PKEY_PARAM_EC_PUB_Y, &y) == 1) {
    out.assign(1 + 2 * static_cast<std::size_t>(fieldBytes), 0);
    out[0] = 0x04;
    if (BN_bn2binpad(x, out.data() + 1, fieldBytes) != fieldBytes ||
        BN_bn2binpad(y, out.data() + 1 + fieldBytes, fieldBytes) != fieldBytes) {
      out.clear();
    }
  }
  BN_free(x);
  BN_free(y);
  return out;
}

std::vector<std::uint8_t> rawPublicKey(EVP_PKEY* key) {
  std::size_t length = 0;
  if (EVP_PKEY_get_raw_public_key(key, nullptr, &length) != 1 || length == 0) return {};
  std::vector<std::uint8_t> out(length);
  if (EVP_PKEY_get_raw_public_key(key, out.data(), &length) != 1) return {};
  out.resize(length);
  return out;
}

bool startsWith(std::span<const std::uint8_t> bytes, std::span<const std::uint8_t> prefix) {
  return bytes.size() >= prefix.size() && std::equal(prefix.begin(), prefix.end(), bytes.begin());
}

}  // namespace

std::span<const std::uint8_t> ZRBSecKeySPKIHeader(int kind) {
  switch (kind) {
    case ZRBSecKeySPKIKindRSA2048: return kRSA2048Header;
    case ZRBSecKeySPKIKindRSA4096: return kRSA4096Header;
    case ZRBSecKeySPKIKindECSecp256r1: return kSecp256r1Header;
    case ZRBSecKeySPKIKindECSecp384r1: return kSecp384r1Header;
    default: return {};
  }
}

ZRBSecKeyPtr ZRBSecKey::createWithSubjectPublicKeyInfo(std::span<const std::uint8_t> der) {
  if (der.empty()) return nullptr;
  const unsigned char* cursor = der.data();
  EVP_PKEY* key = d2i_PUBKEY(nullptr, &cursor, static_cast<long>(der.size()));
  if (!key) return nullptr;
  ZRBSecKeyPtr result;
  if (cursor == der.data() + der.size()) result = createWithEVPKey(key);
  EVP_PKEY_free(key);
  return result;
}

ZRBSecKeyPtr ZRBSecKey::createWithEVPKey(evp_pkey_st* key) {
  if (!key) return nullptr;
  auto result = std::make_shared<ZRBSecKey>(Private{}, key);
  if (result->external_.empty() || result->spki_.empty()) return nullptr;
  return result;
}

ZRBSecKey::ZRBSecKey(Private, evp_pkey_st* key) : key_(key) {
  EVP_PKEY_up_ref(key_);
  bits_ = EVP_PKEY_get_bits(key_);
  spki_ = encode([&](unsigned char** out) { return i2d_PUBKEY(key_, out); });

  switch (EVP_PKEY_get_base_id(key_)) {
    case EVP_PKEY_RSA:
      type_ = ZRBSecKeyTypeRSA;
      external_ = encode([&](unsigned char** out) { return i2d_PublicKey(key_, out); });
      break;
    case EVP_PKEY_EC: {
      type_ = ZRBSecKeyTypeEC;
      char name[64] = {};
      std::size_t length = 0;
      if (EVP_PKEY_get_utf8_string_param(key_, OSSL_PKEY_PARAM_GROUP_NAME, name, sizeof name, &length) == 1) {
        curve_.assign(name, length);
      }
      external_ = uncompressedPoint(key_);
      break;
    }
    default:
      external_ = rawPublicKey(key_);
      if (external_.empty()) external_ = spki_;
      break;
  }

  // A standard kind only when header + representation really is the key's SubjectPublicKeyInfo,
  // so an unusual exponent or a curve with the same size never gets a header that lies.
  std::optional<ZRBSecKeySPKIKind> candidate;
  if (type_ == ZRBSecKeyTypeRSA && bits_ == 2048) candidate = ZRBSecKeySPKIKindRSA2048;
  if (type_ == ZRBSecKeyTypeRSA && bits_ == 4096) candidate = ZRBSecKeySPKIKindRSA4096;
  if (type_ == ZRBSecKeyTypeEC && curve_ == "prime256v1") candidate = ZRBSecKeySPKIKindECSecp256r1;
  if (type_ == ZRBSecKeyTypeEC && curve_ == "secp384r1") candidate = ZRBSecKeySPKIKindECSecp384r1;
  if (candidate) {
    auto header = ZRBSecKeySPKIHeader(*candidate);
    if (spki_.size() == header.size() + external_.size() && startsWith(spki_, header) &&
        std::equal(external_.begin(), external_.end(), spki_.begin() + static_cast<long>(header.size()))) {
      spkiKind_ = candidate;
    }
  }
}

ZRBSecKey::~ZRBSecKey() { EVP_PKEY_free(key_); }

std::array<std::uint8_t, 32> ZRBSecKey::subjectPublicKeyInfoSHA256() const {
  if (!spkiKind_) return ZRBSHA256(std::span<const std::uint8_t>(spki_));
  ZRBSHA256Context context;
  context.update(ZRBSecKeySPKIHeader(*spkiKind_));
  context.update(external_);
  return context.final();
}

std::string ZRBSecKey::description() const {
  std::string text = "<ZRBSecKey " + ZRBFormatPointer(this) + ": type: ";
  const char* name = EVP_PKEY_get0_type_name(key_);
  text += type_ == ZRBSecKeyTypeRSA ? "RSA" : type_ == ZRBSecKeyTypeEC ? "EC" : name ? name : "unknown";
  text += ", bits: " + std::to_string(bits_);
  if (!curve_.empty()) text += ", curve: " + curve_;
  return text + ">";
}

bool ZRBSecKey::isEqual(const ZRBObject& other) const {
  if (this == &other) return true;
  auto* key = dynamic_cast<const ZRBSecKey*>(&other);
  if (!key || key->type_ != type_ || key->curve_ != curve_ || key->external_ != external_) return false;
  // Raw keys of different algorithms can share bytes; their SubjectPublicKeyInfo tells them apart.
  return type_ != ZRBSecKeyTypeOther || key->spki_ == spki_;
}

std::size_t ZRBSecKey::hash() const {
  return std::hash<std::string_view>{}(
      std::string_view(reinterpret_cast<const char*>(external_.data()), external_.size()));
}
