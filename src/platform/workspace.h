// Workspace: the buffers of one thread that drives loops. A connection that waits owns none of them.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "platform/growing_buffer.h"
#include "platform/outgoing.h"

namespace vel {

/// The small writes of one socket's turn, put one behind the other where they cost least. What the system
/// does not take at the end of the turn moves to the socket.
struct Burst {
  /// What it takes at most.
  static constexpr size_t kMost = 32 * 1024;

  /// None while it is free.
  const void* owner = nullptr;
  GrowingBuffer bytes;
  /// Where each write ends.
  std::vector<size_t> ends;
  /// Of every write.
  std::chrono::milliseconds timeout{-1};

  void release() noexcept {
    owner = nullptr;
    bytes.clear();
    ends.clear();
  }
};

class Workspace {
 public:
  /// What one receive may bring: several chunks of the size that clients like.
  static constexpr size_t kReceive = 64 * 1024;
  /// The same while a head is read.
  static constexpr size_t kReceiveForHeads = 16 * 1024;
  static constexpr size_t kFileBytes = 64 * 1024;
  /// The largest piece that is kept for the next body.
  static constexpr size_t kMostKept = 1024 * 1024;

  /// Received bytes, or decrypted ones.
  std::vector<uint8_t>& input() {
    if (input_.empty()) input_.resize(kReceive);
    return input_;
  }
  /// Received bytes that are to be decrypted.
  std::vector<uint8_t>& ciphertext() {
    if (ciphertext_.empty()) ciphertext_.resize(kReceive + 1024);
    return ciphertext_;
  }

  /// Bytes of files that cannot be sent from where they are.
  std::vector<uint8_t>& fileBytes() {
    if (file_bytes_.empty()) file_bytes_.resize(kFileBytes);
    return file_bytes_;
  }

  Burst& burst() noexcept { return burst_; }

  std::unique_ptr<Outgoing> takeOutgoing() {
    return spare_outgoing_ ? std::move(spare_outgoing_) : std::make_unique<Outgoing>();
  }
  void giveBack(std::unique_ptr<Outgoing> outgoing) noexcept {
    outgoing->clear();
    if (!spare_outgoing_) spare_outgoing_ = std::move(outgoing);
  }

  /// A piece of a body is gathered here when it comes in many receives.
  std::unique_ptr<uint8_t[]> takePiece(size_t length) {
    if (length <= piece_length_) {
      piece_length_ = 0;
      return std::move(piece_);
    }
    return std::unique_ptr<uint8_t[]>(new uint8_t[length]);
  }
  void giveBack(std::unique_ptr<uint8_t[]> piece, size_t length) noexcept {
    if (length < piece_length_ || length > kMostKept) return;
    piece_ = std::move(piece);
    piece_length_ = length;
  }

 private:
  std::vector<uint8_t> input_;
  std::vector<uint8_t> ciphertext_;
  std::vector<uint8_t> file_bytes_;
  Burst burst_;
  std::unique_ptr<Outgoing> spare_outgoing_;
  std::unique_ptr<uint8_t[]> piece_;
  size_t piece_length_ = 0;
};

}  // namespace vel
