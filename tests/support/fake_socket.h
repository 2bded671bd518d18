// FakeSocket: a socket in memory. It records what it is asked to do and completes it when the test
// says so, on the delegate queue, with no kernel, no threads of its own and no clock.
#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "corvane/socket.h"

namespace vel::test {

/// One read or write as it was issued.
struct SocketCall {
  enum class Kind { kReadLine, kReadBytes, kWait, kWrite };
  Kind kind;
  int64_t tag;
  // Maximum or exact length of a read.
  size_t length;
  std::chrono::milliseconds timeout;
  // What is written.
  std::string bytes;
};

/// A connected socket whose peer is the test.
/// Queue:   the operations of VELSocket on the delegate queue or before there is one; those of the
///          test on the test's thread.
class FakeSocket final : public VELSocket, public std::enable_shared_from_this<FakeSocket> {
 public:
  // The test's side.

  /// Makes `bytes` arrive, then completes everything that can be completed.
  void receive(std::string_view bytes);
  /// Completes everything that can be completed.
  void settle();
  /// From now on `settle` does so in one turn of the queue, on the calling thread: that is quick, and
  /// what a completion throws comes out of the call instead of reaching the last resort.
  void settleInOneTurn() { settles_in_one_turn_ = true; }
  /// The peer closes or resets the connection.
  void breakOff();
  /// While held, writes do not complete.
  void holdWrites(bool isHeld) { writes_are_held_ = isHeld; }
  /// Completes the oldest held write.
  void completeOneWrite();

  /// Everything that was issued, oldest first.
  const std::vector<SocketCall>& calls() const { return calls_; }
  /// The tags of the writes, oldest first.
  std::vector<int64_t> writeTags() const;
  /// The tags of the reads, oldest first.
  std::vector<int64_t> readTags() const;
  /// Everything that was written.
  const std::string& output() const { return output_; }
  std::string takeOutput();
  /// The tag of the read that waits for bytes, if one does.
  std::optional<int64_t> pendingRead() const;
  /// Bytes that arrived and were not read.
  const std::string& unread() const { return input_; }
  bool wasDisconnected() const { return state_ != State::kOpen; }
  bool wasDisconnectedAfterWriting() const { return was_flushed_; }
  const std::optional<VELTLSSettings>& TLSSettings() const { return tls_settings_; }

  // VELSocket.

  bool acceptOnInterface(const std::optional<std::string>& interface, uint16_t port,
                         VELError* error) override;
  bool connectToHost(const std::string& host, uint16_t port, std::chrono::milliseconds timeout,
                     VELError* error) override;
  void readDataToData(const VELData& terminator, std::chrono::milliseconds timeout,
                      size_t maxLength, int64_t tag) override;
  void readDataToLength(size_t length, std::chrono::milliseconds timeout, int64_t tag) override;
  void waitForInput(size_t length, std::chrono::milliseconds timeout, int64_t tag) override;
  std::span<char> inputAtHand() const override;
  void takeInput(size_t length) override { input_.erase(0, length); }
  void writeData(VELData data, std::chrono::milliseconds timeout, int64_t tag) override;
  void startTLS(const VELTLSSettings& settings) override { tls_settings_ = settings; }
  void disconnect() override;
  void disconnectAfterWriting() override;
  void setDelegate(std::weak_ptr<VELSocketDelegate> delegate,
                   std::shared_ptr<VELSerialQueue> delegateQueue) override;
  std::shared_ptr<VELSerialQueue> delegateQueue() const override { return queue_; }
  bool isSecure() const override { return tls_settings_.has_value(); }
  bool isConnected() const override { return state_ == State::kOpen; }
  size_t unsentLength() const override { return 0; }
  VELSocketAddress localAddress() const override { return {"192.0.2.1", 80}; }
  VELSocketAddress peerAddress() const override { return {"192.0.2.7", 51234}; }

 private:
  enum class State { kOpen, kFlushing, kClosed };

  bool completeOne();
  bool completeWrite();
  bool completeRead();
  void close(std::optional<VELError> error);

  std::weak_ptr<VELSocketDelegate> delegate_;
  std::shared_ptr<VELSerialQueue> queue_;
  State state_ = State::kOpen;
  bool was_flushed_ = false;
  bool disconnect_is_told_ = false;
  bool writes_are_held_ = false;
  bool settles_in_one_turn_ = false;
  bool is_input_at_hand_ = false;
  std::optional<VELError> error_;
  std::optional<VELTLSSettings> tls_settings_;
  std::vector<SocketCall> calls_;
  mutable std::string input_;
  std::string output_;
  std::deque<SocketCall> reads_;
  std::deque<int64_t> writes_;
};

}  // namespace vel::test
