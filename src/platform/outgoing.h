// Outgoing: the bytes that a socket has been given to write and the system has not taken yet.
#pragma once

#include <sys/uio.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "corvane/data.h"
#include "platform/clock.h"
#include "platform/growing_buffer.h"

namespace vel {

class FileRegion;

/// A part of a file region that is to be sent.
struct RegionRest {
  const FileRegion* region = nullptr;
  size_t location = 0;
  size_t length = 0;
};

/// Small writes are copied into one buffer, those of files are read into it, and count as written at once;
/// larger ones, and all that comes after them, wait in a line by reference. What counts as written keeps
/// its time-out until the system has taken it. Small writes in line of which nothing is told are joined, or a
/// peer could have many of a few bytes cost a hundred times as much.
class Outgoing {
 public:
  /// A write up to this size is copied.
  static constexpr size_t kSmall = 16 * 1024;
  /// A write of a file's up to this size is read. Larger ones are sent from the file.
  static constexpr size_t kSmallRegion = 48 * 1024;
  /// The most that the buffer takes.
  static constexpr size_t kGather = 64 * 1024;
  static constexpr int kMostVectors = 16;

  Outgoing() = default;
  Outgoing(const Outgoing&) = delete;
  Outgoing& operator=(const Outgoing&) = delete;

  /// Takes a write. Shape: a negative time-out means none.
  void append(VELData data, std::chrono::milliseconds timeout, int64_t tag);
  /// Takes a write of `head` and `data` together, of which nothing is told. Without a head the data wait by
  /// reference, unless small writes come behind them before any is sent: then all of them are gathered.
  void append(std::string_view head, const VELData& data, std::chrono::milliseconds timeout);
  /// The same for much. Data that are lent are not copied before `keepLent`.
  void appendLent(std::string_view head, const VELData& data, std::chrono::milliseconds timeout);
  /// Copies what has not been sent of the data that are lent, which are the last.
  void keepLent();

  /// Nothing is left to send.
  bool isSent() const noexcept { return unsent_ == 0; }
  /// Nothing is left to send or to tell.
  bool isEmpty() const noexcept { return unsent_ == 0 && told_ == done_.size(); }
  size_t unsent() const noexcept { return unsent_; }

  /// The first bytes to send that are in memory, and `region`, which follows them, without a region when
  /// there is none. Returns the number of vectors used.
  int vectors(iovec* vectors, int most, RegionRest* region) const noexcept {
    *region = RegionRest();
    if (isInLine()) return vectorsOfLine(vectors, most, region);
    vectors[0] = {const_cast<uint8_t*>(gather_.data() + gather_sent_), gathered()};
    return gathered() > 0 ? 1 : 0;
  }
  /// The system took `length` bytes.
  void didSend(size_t length) {
    if (length < gathered() || isInLine()) return didSendPart(length);
    unsent_ = 0;
    emptyGather();
  }

  bool hasDone() const noexcept { return told_ < done_.size(); }
  /// The tag of the next write that counts as written.
  int64_t takeDone() noexcept { return done_[told_++]; }

  /// When the time of the first write that the system has not taken whole is up. It starts now unless it
  /// runs already; the time of a write begins when all that comes before it has been taken.
  MonotonicTime due(MonotonicTime now);

  /// Appends all that is left to send to `text`.
  void copyTo(std::string* text) const;

  /// Makes it new, keeping what memory is worth keeping.
  void clear() noexcept;
  /// Gives back memory that the rest does not need, before it waits for long.
  void shrink();

 private:
  struct Item {
    VELData data;
    std::chrono::milliseconds timeout;
    MonotonicTime due;
    // None: nothing is told.
    std::optional<int64_t> tag;
    // Stands for several writes; the time-out begins again with each part that leaves.
    bool is_joined = false;
  };
  // The time-out of what lies in the buffer between two places, counted from the first byte ever
  // gathered.
  struct Mark {
    uint64_t begin;
    uint64_t end;
    std::chrono::milliseconds timeout;
    MonotonicTime due;
  };

  int vectorsOfLine(iovec* vectors, int most, RegionRest* region) const noexcept;
  void didSendPart(size_t length);
  void emptyGather() noexcept {
    gather_base_ += gather_.size();
    gather_.clear();
    gather_sent_ = 0;
    marks_.clear();
    first_mark_ = 0;
  }
  size_t gathered() const noexcept { return gather_.size() - gather_sent_; }
  size_t gather(const VELData& data);
  void gatherItems();
  void gather(std::string_view head, const VELData& data, std::chrono::milliseconds timeout);
  void line(VELData data, std::chrono::milliseconds timeout, std::optional<int64_t> tag);
  void join(std::string_view head, std::string_view bytes, std::chrono::milliseconds timeout);
  void endTail();
  bool isInLine() const noexcept { return first_item_ < items_.size(); }

  GrowingBuffer gather_;
  size_t gather_sent_ = 0;
  uint64_t gather_base_ = 0;  // bytes that left the buffer before its present content
  std::vector<Mark> marks_;
  size_t first_mark_ = 0;
  std::vector<Item> items_;
  size_t first_item_ = 0;
  size_t item_sent_ = 0;
  // The bytes of the last item as long as others can be joined to them; else empty.
  std::string tail_;
  std::vector<int64_t> done_;
  size_t told_ = 0;
  size_t unsent_ = 0;
};

}  // namespace vel
