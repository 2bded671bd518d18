// Faults: lets the N-th system call or allocation of one kind fail, as the linker redirects those of the
// library to this file's own (CMakeLists.txt lists them).
#pragma once

#include <cstddef>
#include <string>

namespace vel::test {

enum class Fault { kReceive, kSend, kAccept, kWatch, kOpen, kWrite, kAllocation };

/// Makes one call fail for as long as it lives. Calls of the thread that made it are not counted: they are
/// the test's own. One at a time.
class ArmedFault {
 public:
  /// The `nth` call of `kind`, counted from 1, fails with `error`; a failing allocation throws.
  ArmedFault(Fault kind, int nth, int error);
  ArmedFault(const ArmedFault&) = delete;
  ArmedFault& operator=(const ArmedFault&) = delete;
  ~ArmedFault();

  /// Whether the call came.
  bool hasStruck() const;
};

/// Allocations of at least this many bytes count as those of buffers.
inline constexpr size_t kBufferAllocation = 1000;

}  // namespace vel::test
