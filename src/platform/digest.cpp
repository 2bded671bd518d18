// Digests through OpenSSL's EVP interface, and base64.
#include "platform/digest.h"

#include <openssl/evp.h>

#include <vector>

#include "corvane/digest.h"
#include "corvane/error.h"
#include "platform/ascii.h"
#include "platform/file.h"
#include "platform/openssl_support.h"

namespace vel {
namespace {

constexpr size_t kFilePiece = size_t{128} * 1024;
constexpr std::string_view kBase64Alphabet =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

[[noreturn]] void throwUnavailable() {
  throw VELException(VELInternalInconsistencyException, "The digest is not available");
}

/// Looking an algorithm up by name is slow, so each is fetched once and kept.
const EVP_MD* sha1Method() {
  prepareOpenSSL();
  static EVP_MD* const method = EVP_MD_fetch(nullptr, "SHA1", nullptr);
  return method;
}

const EVP_MD* sha256Method() {
  prepareOpenSSL();
  static EVP_MD* const method = EVP_MD_fetch(nullptr, "SHA256", nullptr);
  return method;
}

template <typename Digest>
Digest digestOf(std::string_view bytes, const EVP_MD* method) {
  Digest digest;
  if (method == nullptr ||
      EVP_Digest(bytes.data(), bytes.size(), digest.data(), nullptr, method, nullptr) != 1) {
    throwUnavailable();
  }
  return digest;
}

/// The value of a base64 digit, or -1.
constexpr int base64Value(char c) {
  if (c >= 'A' && c <= 'Z') return c - 'A';
  if (c >= 'a' && c <= 'z') return c - 'a' + 26;
  if (isDigit(c)) return c - '0' + 52;
  if (c == '+') return 62;
  return c == '/' ? 63 : -1;
}

}  // namespace

SHA1Digest sha1(std::string_view bytes) { return digestOf<SHA1Digest>(bytes, sha1Method()); }

SHA256Digest sha256(std::string_view bytes) {
  return digestOf<SHA256Digest>(bytes, sha256Method());
}

struct SHA256::Context {
  Context() : evp(EVP_MD_CTX_new()) { begin(); }
  Context(const Context&) = delete;
  Context& operator=(const Context&) = delete;
  ~Context() { EVP_MD_CTX_free(evp); }

  void begin() const {
    if (evp == nullptr || EVP_DigestInit_ex(evp, sha256Method(), nullptr) != 1) throwUnavailable();
  }

  EVP_MD_CTX* const evp;
};

SHA256::SHA256() : context_(std::make_unique<Context>()) {}

SHA256::~SHA256() = default;

void SHA256::update(std::string_view bytes) {
  if (EVP_DigestUpdate(context_->evp, bytes.data(), bytes.size()) != 1) throwUnavailable();
}

SHA256Digest SHA256::finish() {
  SHA256Digest digest;
  if (EVP_DigestFinal_ex(context_->evp, digest.data(), nullptr) != 1) throwUnavailable();
  context_->begin();
  return digest;
}

std::string hexString(std::span<const uint8_t> bytes) {
  std::string text;
  text.reserve(bytes.size() * 2);
  for (const uint8_t byte : bytes) {
    const auto digits = hexDigits(byte, false);
    text.append(digits.data(), digits.size());
  }
  return text;
}

std::string base64Encoded(std::string_view bytes) {
  std::string text;
  text.reserve((bytes.size() + 2) / 3 * 4);
  for (size_t at = 0; at < bytes.size(); at += 3) {
    const std::string_view group = bytes.substr(at, 3);
    uint32_t bits = 0;
    for (size_t i = 0; i < 3; ++i) {
      bits = bits << 8 | (i < group.size() ? static_cast<unsigned char>(group[i]) : 0U);
    }
    for (size_t i = 0; i < 4; ++i) {
      text.push_back(i <= group.size() ? kBase64Alphabet[bits >> (18 - 6 * i) & 0x3F] : '=');
    }
  }
  return text;
}

std::optional<std::string> base64Decoded(std::string_view text) {
  if (text.size() % 4 != 0) return std::nullopt;
  const size_t padding = text.ends_with("==") ? 2 : text.ends_with('=') ? 1 : 0;
  text.remove_suffix(padding);
  std::string bytes;
  bytes.reserve(text.size() / 4 * 3 + 2);
  uint32_t bits = 0;
  size_t count = 0;
  for (const char c : text) {
    const int value = base64Value(c);
    if (value < 0) return std::nullopt;
    bits = (bits << 6 | static_cast<uint32_t>(value)) & 0x3FFF;
    count += 6;
    if (count < 8) continue;
    count -= 8;
    bytes.push_back(static_cast<char>(bits >> count & 0xFF));
  }
  // What the last digit has beyond the last byte says nothing and must be zero.
  if ((bits & ((1U << count) - 1)) != 0) return std::nullopt;
  return bytes;
}

}  // namespace vel

std::string VELSHA256Digest(std::string_view bytes) { return vel::hexString(vel::sha256(bytes)); }

std::optional<std::string> VELSHA256DigestOfFile(const std::string& path, VELError* error) {
  const vel::FileDescriptor file = vel::openForReading(path, error);
  if (!file) return std::nullopt;
  vel::SHA256 digest;
  std::vector<char> piece(vel::kFilePiece);
  for (uint64_t offset = 0;;) {
    const ptrdiff_t count = vel::readAt(file, piece.data(), piece.size(), offset, error);
    if (count < 0) return std::nullopt;
    if (count == 0) return vel::hexString(digest.finish());
    digest.update({piece.data(), static_cast<size_t>(count)});
    offset += static_cast<uint64_t>(count);
  }
}
