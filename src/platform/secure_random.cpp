// The buffered random source. OpenSSL's own state is safe across fork; the buffer here is made so by a
// generation that every child increases.
#include "platform/secure_random.h"

#include <openssl/crypto.h>
#include <openssl/rand.h>
#include <pthread.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <climits>
#include <cstdint>
#include <cstring>

#include "corvane/error.h"
#include "platform/openssl_support.h"

namespace vel {
namespace {

constexpr size_t kBufferSize = 512;

constinit std::atomic<uint64_t> forkGeneration{1};

struct Buffer {
  std::array<unsigned char, kBufferSize> bytes;
  size_t used;
  uint64_t generation;
};

// Zero-initialised: generation 0 is never current, so the first use fills it.
constinit thread_local Buffer threadBuffer{};

void fill(unsigned char* out, size_t size) {
  prepareOpenSSL();
  while (size > 0) {
    const size_t piece = std::min<size_t>(size, INT_MAX);
    if (RAND_bytes(out, static_cast<int>(piece)) != 1) {
      throw VELException(VELInternalInconsistencyException,
                         "The system has no secure random bytes");
    }
    out += piece;
    size -= piece;
  }
}

void watchForks() {
  static const int registered = pthread_atfork(
      nullptr, nullptr, [] { forkGeneration.fetch_add(1, std::memory_order_relaxed); });
  static_cast<void>(registered);
}

}  // namespace

void secureRandomBytes(void* out, size_t size) {
  auto* bytes = static_cast<unsigned char*>(out);
  if (size > kBufferSize / 4) return fill(bytes, size);
  Buffer& buffer = threadBuffer;
  const uint64_t generation = forkGeneration.load(std::memory_order_relaxed);
  if (buffer.generation != generation || kBufferSize - buffer.used < size) {
    watchForks();
    buffer.generation = 0;
    fill(buffer.bytes.data(), kBufferSize);
    buffer.used = 0;
    buffer.generation = generation;
  }
  unsigned char* source = buffer.bytes.data() + buffer.used;
  std::memcpy(bytes, source, size);
  OPENSSL_cleanse(source, size);
  buffer.used += size;
}

}  // namespace vel
