// Digests and base64, over OpenSSL. The random source stands in platform/secure_random.h.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace vel {

using SHA1Digest = std::array<uint8_t, 20>;
using SHA256Digest = std::array<uint8_t, 32>;

SHA1Digest sha1(std::string_view bytes);
SHA256Digest sha256(std::string_view bytes);

/// A SHA-256 digest made piece by piece.
class SHA256 {
 public:
  SHA256();
  SHA256(const SHA256&) = delete;
  SHA256& operator=(const SHA256&) = delete;
  ~SHA256();

  void update(std::string_view bytes);
  /// The digest of all bytes so far; the next `update` begins a new one.
  SHA256Digest finish();

 private:
  struct Context;
  std::unique_ptr<Context> context_;
};

/// Lower-case hexadecimal digits.
std::string hexString(std::span<const uint8_t> bytes);

/// Base64 with the standard alphabet and padding, in one line (RFC 4648 §4).
std::string base64Encoded(std::string_view bytes);

/// The bytes that `text` spells; none for anything but whole, padded groups of the standard alphabet
/// whose unused bits are zero.
std::optional<std::string> base64Decoded(std::string_view text);

}  // namespace vel
