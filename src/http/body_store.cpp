#include "http/body_store.h"

#include <algorithm>
#include <cstddef>

#include "corvane/error.h"
#include "platform/log.h"

namespace vel {

namespace {

// An announced size is only a peer's word: more than this is taken as it comes.
constexpr uint64_t kMostReserved = 65'536;
// A buffer that grows beyond the one gets room for the other at once.
constexpr uint64_t kDoubledUpTo = 1'048'576;
constexpr uint64_t kLargeBuffer = 8'388'608;

void logFailure(const VELError& error) { logLine("Request body is lost: " + error.description()); }

}  // namespace

void BodyStore::prepare(uint64_t size) {
  buffer_.reserve(static_cast<size_t>(std::min(size, kMostReserved)));
}

void BodyStore::append(std::string_view bytes) {
  if (is_finished_) {
    throw VELException(VELInternalInconsistencyException,
                       "-processBodyData was called without a body data object");
  }
  length_ += bytes.size();
  if (!isInFile() && length_ > limit_) moveToFile();
  if (isInFile()) {
    writeToFile(bytes);
    return;
  }
  // Growing by doubling would hold two large buffers at a time, while memory that is not written to costs
  // nothing.
  if (length_ > buffer_.capacity() && length_ > kDoubledUpTo) {
    buffer_.reserve(static_cast<size_t>(std::min(limit_, std::max(2 * length_, kLargeBuffer))));
  }
  buffer_.append(bytes);
}

void BodyStore::moveToFile() {
  VELError error;
  // Whatever fails on the way makes the creation of the file fail, and that is what is logged; but
  // a directory of another user's would be written to, so it is not.
  std::string directory;
  bool isSafe = makeTemporaryItemsDirectory(&directory, &error);
  directory += "/Uploads";
  isSafe = isSafe && makeDirectories(directory, 0700, &error);
  path_ = directory + "/" + identifier_.UUIDString();
  if (isSafe) file_ = createExclusive(path_, 0600, &error);
  if (file_) {
    writeToFile(buffer_);
  } else {
    logFailure(error);
  }
  std::string().swap(buffer_);
}

void BodyStore::writeToFile(std::string_view bytes) {
  VELError error;
  if (!file_ || writeAll(file_, bytes, &error)) return;
  logFailure(error);
  file_.reset();
}

void BodyStore::finish() {
  is_finished_ = true;
  if (!file_) return;
  VELError error;
  if (!synchronize(file_, &error)) logFailure(error);
  file_.reset();
}

void BodyStore::discard() {
  file_.reset();
  if (!isInFile()) return;
  removeFile(path_);
  path_.clear();
}

}  // namespace vel
