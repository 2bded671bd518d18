#include "support/fake_socket.h"

#include <utility>

namespace vel::test {

void FakeSocket::receive(std::string_view bytes) {
  queue_->sync([&] { input_.append(bytes); });
  settle();
}

// Completions are posted, as a real socket's come from the loop: what they throw reaches the last
// resort.
void FakeSocket::settle() {
  if (settles_in_one_turn_) {
    queue_->sync([&] {
      while (completeOne()) {
      }
    });
    return;
  }
  bool wasCompleted = true;
  while (wasCompleted) {
    wasCompleted = false;
    queue_->async([&] {
      wasCompleted = true;
      wasCompleted = completeOne();
    });
    queue_->sync([] {});
  }
}

void FakeSocket::breakOff() {
  queue_->sync(
      [&] { close(VELError(VELSocketErrorDomain, kVELSocketClosed, "closed by the peer")); });
  settle();
}

void FakeSocket::completeOneWrite() {
  queue_->async([&] {
    writes_are_held_ = false;
    completeWrite();
    writes_are_held_ = true;
  });
  settle();
}

std::vector<int64_t> FakeSocket::writeTags() const {
  std::vector<int64_t> tags;
  for (const SocketCall& call : calls_) {
    if (call.kind == SocketCall::Kind::kWrite) tags.push_back(call.tag);
  }
  return tags;
}

std::vector<int64_t> FakeSocket::readTags() const {
  std::vector<int64_t> tags;
  for (const SocketCall& call : calls_) {
    if (call.kind != SocketCall::Kind::kWrite) tags.push_back(call.tag);
  }
  return tags;
}

std::optional<int64_t> FakeSocket::pendingRead() const {
  return reads_.empty() ? std::nullopt : std::optional(reads_.front().tag);
}

std::string FakeSocket::takeOutput() { return std::exchange(output_, std::string()); }

bool FakeSocket::acceptOnInterface(const std::optional<std::string>&, uint16_t, VELError*) {
  return false;
}

bool FakeSocket::connectToHost(const std::string&, uint16_t, std::chrono::milliseconds, VELError*) {
  return false;
}

void FakeSocket::readDataToData(const VELData&, std::chrono::milliseconds timeout, size_t maxLength,
                                int64_t tag) {
  calls_.push_back({SocketCall::Kind::kReadLine, tag, maxLength, timeout, {}});
  if (state_ == State::kOpen) reads_.push_back(calls_.back());
}

void FakeSocket::readDataToLength(size_t length, std::chrono::milliseconds timeout, int64_t tag) {
  calls_.push_back({SocketCall::Kind::kReadBytes, tag, length, timeout, {}});
  if (state_ == State::kOpen) reads_.push_back(calls_.back());
}

void FakeSocket::waitForInput(size_t length, std::chrono::milliseconds timeout, int64_t tag) {
  calls_.push_back({SocketCall::Kind::kWait, tag, length, timeout, {}});
  if (state_ == State::kOpen) reads_.push_back(calls_.back());
}

// Only where it has been waited for: what reads are issued stays visible.
std::span<char> FakeSocket::inputAtHand() const {
  return is_input_at_hand_ && state_ == State::kOpen ? std::span<char>(input_) : std::span<char>();
}

void FakeSocket::writeData(VELData data, std::chrono::milliseconds timeout, int64_t tag) {
  if (state_ != State::kOpen) return;
  calls_.push_back({SocketCall::Kind::kWrite, tag, data.length(), timeout, data.string()});
  output_.append(data.view());
  writes_.push_back(tag);
}

void FakeSocket::disconnect() { close(std::nullopt); }

void FakeSocket::disconnectAfterWriting() {
  if (state_ != State::kOpen) return;
  state_ = State::kFlushing;
  was_flushed_ = true;
  reads_.clear();
}

void FakeSocket::setDelegate(std::weak_ptr<VELSocketDelegate> delegate,
                             std::shared_ptr<VELSerialQueue> delegateQueue) {
  delegate_ = std::move(delegate);
  queue_ = std::move(delegateQueue);
}

void FakeSocket::close(std::optional<VELError> error) {
  if (state_ == State::kClosed) return;
  state_ = State::kClosed;
  error_ = std::move(error);
  reads_.clear();
  writes_.clear();
}

bool FakeSocket::completeOne() {
  if (completeWrite() || completeRead()) return true;
  if (state_ == State::kFlushing && writes_.empty()) close(std::nullopt);
  if (state_ != State::kClosed || std::exchange(disconnect_is_told_, true)) return false;
  if (const auto delegate = delegate_.lock()) delegate->socketDidDisconnect(*this, error_);
  return true;
}

bool FakeSocket::completeWrite() {
  if (writes_are_held_ || writes_.empty()) return false;
  const int64_t tag = writes_.front();
  writes_.pop_front();
  if (const auto delegate = delegate_.lock()) delegate->socketDidWriteDataWithTag(*this, tag);
  return true;
}

bool FakeSocket::completeRead() {
  if (reads_.empty()) return false;
  const SocketCall read = reads_.front();
  size_t length = read.length;
  if (read.kind == SocketCall::Kind::kReadLine) {
    const size_t end = std::string_view(input_).substr(0, read.length).find("\r\n");
    if (end == std::string::npos) {
      if (input_.size() < read.length) return false;
      close(VELError(VELSocketErrorDomain, kVELSocketReadMaximumReached, "too long"));
      return true;
    }
    length = end + 2;
  } else if (input_.size() < length) {
    return false;
  }
  reads_.pop_front();
  if (read.kind == SocketCall::Kind::kWait) {
    is_input_at_hand_ = true;
    const auto delegate = delegate_.lock();
    if (delegate) delegate->socketDidReadData(*this, VELData(), read.tag);
    is_input_at_hand_ = false;
    return true;
  }
  // The bytes are lent for the call only.
  const std::string bytes = input_.substr(0, length);
  input_.erase(0, length);
  if (const auto delegate = delegate_.lock()) {
    delegate->socketDidReadData(*this, VELData::dataWithBorrowedBytes(bytes.data(), length),
                                read.tag);
  }
  return true;
}

}  // namespace vel::test
