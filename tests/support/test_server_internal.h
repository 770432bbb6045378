// Pieces shared by the test server's files; not for tests.
#pragma once

#include <openssl/evp.h>

#include <memory>
#include <string>
#include <string_view>

namespace zrb_test_server {

// A running SHA-256 over bytes that arrive piece by piece.
class RunningSHA256 {
 public:
  RunningSHA256();
  void update(std::string_view bytes);
  // Lower-case hex; the hash cannot be updated afterwards.
  std::string finish();

 private:
  struct Free {
    void operator()(EVP_MD_CTX* context) const { EVP_MD_CTX_free(context); }
  };
  std::unique_ptr<EVP_MD_CTX, Free> context_;
};

// `text` as a JSON string literal, quotes included.
std::string jsonString(std::string_view text);

bool equalsIgnoringCase(std::string_view a, std::string_view b);

}  // namespace zrb_test_server
