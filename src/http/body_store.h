// BodyStore: keeps the body of one request, in memory while it is small, else in a file. How the
// body is framed on the wire is left to the body readers.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "corvane/uuid.h"
#include "platform/file.h"

namespace vel {

/// The bytes of one body.
/// Owner:   the request's exchange. The file, when there is one, outlives the store unless it is
///          discarded: routes may still read it.
/// Errors:  what cannot be written is logged once and lost; the request names the file all the
///          same.
class BodyStore {
 public:
  /// `identifier` names the file; a body of more than `inMemory` bytes goes there.
  BodyStore(const VELUUID& identifier, uint64_t inMemory)
      : identifier_(identifier), limit_(inMemory) {}

  /// Expects a body of `size` bytes; 0 when that is not known.
  void prepare(uint64_t size);
  /// Raises an internal-inconsistency exception once the body has been finished.
  void append(std::string_view bytes);
  /// The body is complete: the file's bytes are brought to the disk, and the file is closed.
  void finish();
  /// Removes the file.
  void discard();

  /// Bytes received.
  uint64_t length() const noexcept { return length_; }
  bool isInFile() const noexcept { return !path_.empty(); }
  const std::string& path() const noexcept { return path_; }
  /// The bytes of a body that is in memory; can be asked once.
  std::string takeBytes() noexcept { return std::move(buffer_); }

 private:
  void moveToFile();
  void writeToFile(std::string_view bytes);

  VELUUID identifier_;
  uint64_t limit_;
  uint64_t length_ = 0;
  std::string buffer_;
  std::string path_;
  FileDescriptor file_;
  bool is_finished_ = false;
};

}  // namespace vel
