// The words for OpenSSL's failures, and sources over memory.
#include "platform/openssl_support.h"

#include <openssl/crypto.h>
#include <openssl/err.h>

#include <climits>

namespace vel {

void prepareOpenSSL() noexcept {
  static const int prepared = OPENSSL_init_crypto(OPENSSL_INIT_NO_ATEXIT, nullptr);
  static_cast<void>(prepared);
}

BIOPointer bioOverBytes(std::string_view bytes) {
  prepareOpenSSL();
  if (bytes.size() > INT_MAX) {
    return nullptr;
  }
  return BIOPointer(BIO_new_mem_buf(bytes.data(), static_cast<int>(bytes.size())));
}

std::string takeOpenSSLReason() {
  const char* data = nullptr;
  int flags = 0;
  const unsigned long code = ERR_get_error_all(nullptr, nullptr, nullptr, &data, &flags);
  const char* reason = code == 0 ? nullptr : ERR_reason_error_string(code);
  std::string text = reason == nullptr ? "unknown reason" : reason;
  if (data != nullptr && *data != '\0' && (flags & ERR_TXT_STRING) != 0) {
    text.append(" (").append(data).append(")");
  }
  ERR_clear_error();
  return text;
}

}  // namespace vel
