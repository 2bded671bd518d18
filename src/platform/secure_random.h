// Unpredictable bytes, from OpenSSL's generator.
#pragma once

#include <cstddef>

namespace vel {

/// Fills `size` bytes at `out`. Small requests come out of a buffer of the calling thread; it is
/// wiped as it is used, and a child process never sees what its parent had buffered.
/// Raises an internal-inconsistency exception when the system has no random bytes.
void secureRandomBytes(void* out, size_t size);

}  // namespace vel
