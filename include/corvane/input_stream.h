// VELInputStream: bytes that are read in order, from memory, a file or what a host makes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "corvane/export.h"

/// Where a stream stands; the values are fixed.
enum class VELStreamStatus : int {
  kNotOpen = 0,
  kOpening = 1,
  kOpen = 2,
  kReading = 3,
  kWriting = 4,
  kAtEnd = 5,
  kClosed = 6,
  kError = 7,
};

/// A source of bytes. A host may derive its own.
///
/// ```cpp
/// auto stream = VELInputStream::inputStreamWithData("Hello");
/// stream->open();
/// uint8_t bytes[16];
/// ptrdiff_t count = stream->read(bytes, sizeof bytes);
/// stream->close();
/// ```
/// Queue:   used by one thread at a time.
class CORVANE_EXPORT VELInputStream {
 public:
  VELInputStream() = default;
  VELInputStream(const VELInputStream&) = delete;
  VELInputStream& operator=(const VELInputStream&) = delete;
  virtual ~VELInputStream();

  /// A stream over `data`, at its end as soon as the last byte was read.
  static std::shared_ptr<VELInputStream> inputStreamWithData(std::string data);
  /// A stream over the file at `path`, which is opened by `open` and is at its end once a read finds
  /// no more.
  /// Errors:  a file that cannot be opened or read gives the status `kError`.
  static std::shared_ptr<VELInputStream> inputStreamWithFileAtPath(std::string path);

  /// Opens the stream; a stream opens once.
  virtual void open() = 0;
  /// Closes the stream for good.
  virtual void close() = 0;
  /// Reads at most `length` bytes into `buffer`.
  /// Shape:   the count of bytes read; 0 at the end, or when `length` is 0.
  /// Errors:  -1 when the stream is not open, is closed or failed.
  virtual ptrdiff_t read(uint8_t* buffer, size_t length) = 0;
  virtual VELStreamStatus streamStatus() const = 0;
  /// The bytes in all, where they are known before they are read; asked of an open stream.
  /// Default: none.
  virtual std::optional<uint64_t> length() const { return std::nullopt; }
};
