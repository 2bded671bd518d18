// StreamSocket, the way of the bytes: the transport, and TLS between it and the rest.
#include <sys/uio.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <new>
#include <utility>

#include "platform/file_region.h"
#include "platform/queue_runner.h"
#include "platform/stream_socket.h"
#include "platform/workspace.h"

namespace vel {
namespace {

// Plain bytes that are encrypted before the first of them is sent.
constexpr size_t kEncryptAhead = 64 * 1024;
// The plain bytes of one record at most (RFC 8446 §5.1).
constexpr size_t kRecord = 16 * 1024;
// Ciphertext to send beyond which nothing is received. What is written never comes that far, but what a
// peer asks for without taking it would pile up: key updates (RFC 8446 §4.6.3), alerts.
constexpr size_t kMostOutput = 2 * kEncryptAhead;

VELError errorOf(int error) {
  if (error == ECONNRESET || error == EPIPE) {
    return VELError(VELSocketErrorDomain, kVELSocketClosed, "The peer reset the connection.");
  }
  return VELError(VELPOSIXErrorDomain, error, std::strerror(error));
}

}  // namespace

void StreamSocket::gotWriteError(int error) {
  if (error == EAGAIN) {
    is_writable_ = false;
  } else {
    hung_up_ = true;
    end(errorOf(error));
  }
}

// Puts a write behind those of this turn, as long as nothing else waits to be sent; false when it has to go
// the usual way, as it has for data without a head: many share them, and they are not copied.
bool StreamSocket::addToBurst(Workspace& workspace, std::string_view head, const VELData& data,
                              std::chrono::milliseconds timeout) {
  Burst& burst = workspace.burst();
  const size_t length = head.size() + data.length();
  if (head.empty() || length > Burst::kMost || closes_after_writing_) return false;
  if (has_burst_ && burst.bytes.size() + length > Burst::kMost) flush();
  if (!has_burst_) {
    const bool can_send =
        is_registered_ && is_writable_ && state() == State::kOpen && !outgoing_ && !tls_;
    if (!can_send || burst.owner != nullptr) return false;
    burst.timeout = timeout;
  }
  if (burst.timeout != timeout) return false;
  uint8_t* room = burst.bytes.room(length);
  std::memcpy(room, head.data(), head.size());
  if (!data.isEmpty()) std::memcpy(room + head.size(), data.bytes(), data.length());
  burst.ends.push_back(burst.bytes.size() + length);
  burst.bytes.add(length);
  burst.owner = this;
  has_burst_ = true;
  return true;
}

void StreamSocket::flushBurst() {
  Burst& burst = ThreadRecord::current().workspace().burst();
  const iovec vector{const_cast<uint8_t*>(burst.bytes.data()), burst.bytes.size()};
  const ptrdiff_t sent = sendBytes(&vector, 1, false);
  if (sent == static_cast<ptrdiff_t>(vector.iov_len)) {
    has_burst_ = false;
    return burst.release();
  }
  const int error = errno;
  settleBurst(sent < 0 ? 0 : static_cast<size_t>(sent));
  if (sent < 0) return gotWriteError(error);
  // The system's buffer is full: it will tell when there is room.
  is_writable_ = false;
}

// Makes the burst free again: what is left behind the first `sent` bytes waits with the socket. Without memory
// for it the connection ends.
void StreamSocket::settleBurst(size_t sent) noexcept {
  Workspace& workspace = ThreadRecord::current().workspace();
  Burst& burst = workspace.burst();
  has_burst_ = false;
  try {
    if (sent < burst.bytes.size()) outgoing_ = workspace.takeOutgoing();
    const std::string_view bytes(reinterpret_cast<const char*>(burst.bytes.data()),
                                 burst.bytes.size());
    for (const size_t end : burst.ends) {
      if (end > sent) outgoing_->append(bytes.substr(sent, end - sent), VELData(), burst.timeout);
      sent = std::max(sent, end);
    }
  } catch (const std::bad_alloc&) {
    outgoing_.reset();
    endWithoutMemory();
  }
  burst.release();
}

// Sends what the system takes now.
void StreamSocket::flush() {
  if (state() != State::kOpen) return;
  if (has_burst_) return flushBurst();
  if (tls_) return flushTls();
  while (outgoing_ && !outgoing_->isSent() && is_writable_) {
    iovec vectors[Outgoing::kMostVectors];
    RegionRest region;
    const int count = outgoing_->vectors(vectors, Outgoing::kMostVectors, &region);
    if (count == 0) {
      if (!flushRegion(region)) return;
      continue;
    }
    size_t offered = 0;
    for (int i = 0; i < count; ++i) offered += vectors[i].iov_len;
    const ptrdiff_t sent = sendBytes(vectors, count, region.region != nullptr);
    if (sent < 0) return gotWriteError(errno);
    outgoing_->didSend(static_cast<size_t>(sent));
    // A part means that the system's buffer is full: it will tell when there is room.
    if (static_cast<size_t>(sent) < offered) is_writable_ = false;
  }
}

// False when nothing can be sent for now.
bool StreamSocket::flushRegion(const RegionRest& region) {
  const ptrdiff_t sent = sendRegion(region);
  if (sent < 0) {
    gotWriteError(errno);
    return false;
  }
  // A file that has become shorter ends here; what was announced counts as sent. A part says nothing of the
  // system's buffer: the next call tells whether it is full or the file ends.
  outgoing_->didSend(sent == 0 ? region.length : static_cast<size_t>(sent));
  return true;
}

ptrdiff_t StreamSocket::sendRegion(const RegionRest& rest) {
  std::vector<uint8_t>& buffer = ThreadRecord::current().workspace().fileBytes();
  const iovec vector{buffer.data(), rest.region->read(rest.location, buffer.data(),
                                                      std::min(rest.length, buffer.size()))};
  return vector.iov_len == 0 ? 0 : sendBytes(&vector, 1, false);
}

void StreamSocket::flushTls() {
  Tls& tls = *tls_;
  while (is_writable_) {
    if (tls.output_sent < tls.output.size()) {
      const iovec vector{tls.output.data() + tls.output_sent, tls.output.size() - tls.output_sent};
      const ptrdiff_t sent = sendBytes(&vector, 1, false);
      if (sent < 0) return gotWriteError(errno);
      tls.output_sent += static_cast<size_t>(sent);
      countSentSlices();
      if (tls.output_sent < tls.output.size()) {
        is_writable_ = false;
        return;
      }
    }
    countSentSlices();
    tls.output_sent = 0;
    tls.output.clear();
    if (tls.output.capacity() > 2 * kEncryptAhead) tls.output.shrink_to_fit();
    if (!tls.session->isHandshakeDone() || !outgoing_ || outgoing_->isSent()) return;
    if (!encryptAhead()) return end(tls.session->error());
  }
}

// What the system has taken whole is sent: the time of a write must not go on until those behind it are.
void StreamSocket::countSentSlices() {
  Tls& tls = *tls_;
  size_t count = 0;
  while (count < tls.slices.size() && tls.slices[count].end <= tls.output_sent) {
    if (outgoing_) outgoing_->didSend(tls.slices[count].plain);
    ++count;
  }
  tls.slices.erase(tls.slices.begin(), tls.slices.begin() + static_cast<ptrdiff_t>(count));
}

// Encrypts the next part of what is to be sent, a record at a time; false when that fails.
bool StreamSocket::encryptAhead() {
  Tls& tls = *tls_;
  size_t encrypted = 0;
  const auto encrypt = [&](std::string_view plain) {
    while (!plain.empty() && encrypted < kEncryptAhead) {
      const size_t length = std::min(plain.size(), kRecord);
      if (tls.session->write(plain.substr(0, length), &tls.output) != TlsSession::Status::kOk) {
        return false;
      }
      tls.slices.push_back({tls.output.size(), length});
      encrypted += length;
      plain.remove_prefix(length);
    }
    return true;
  };
  iovec vectors[Outgoing::kMostVectors];
  RegionRest region;
  const int count = outgoing_->vectors(vectors, Outgoing::kMostVectors, &region);
  for (int i = 0; i < count; ++i) {
    if (!encrypt({static_cast<const char*>(vectors[i].iov_base), vectors[i].iov_len})) return false;
  }
  if (region.region == nullptr || encrypted >= kEncryptAhead) return true;
  std::vector<uint8_t>& buffer = ThreadRecord::current().workspace().fileBytes();
  const size_t read =
      region.region->read(region.location, buffer.data(), std::min(region.length, buffer.size()));
  if (read > 0) return encrypt({reinterpret_cast<const char*>(buffer.data()), read});
  // As above: the file ends too early.
  if (encrypted == 0) outgoing_->didSend(region.length);
  return true;
}

StreamSocket::Fill StreamSocket::fill(uint8_t* buffer, size_t capacity, size_t* length,
                                      Workspace& workspace) {
  return tls_ ? fillTls(buffer, capacity, length, workspace) : fillPlain(buffer, capacity, length);
}

StreamSocket::Fill StreamSocket::fillPlain(uint8_t* buffer, size_t capacity, size_t* length) {
  *length = 0;
  const ptrdiff_t got = receiveBytes(buffer, capacity);
  if (got > 0) {
    *length = static_cast<size_t>(got);
    // Less than asked for means that nothing is left; the next bytes will be an event of their own. An end
    // that has been told already will not come again.
    if (*length < capacity && !peer_finished_ && !hung_up_) is_readable_ = false;
    return Fill::kGot;
  }
  if (got == 0) {
    peer_finished_ = true;
    return Fill::kEnd;
  }
  if (errno == EAGAIN) {
    is_readable_ = false;
    return Fill::kWouldBlock;
  }
  const int error = errno;
  hung_up_ = true;
  if (state() == State::kOpen) end(errorOf(error));
  return Fill::kFailed;
}

StreamSocket::Fill StreamSocket::fillTls(uint8_t* buffer, size_t capacity, size_t* length,
                                         Workspace& workspace) {
  Tls& tls = *tls_;
  *length = 0;
  bool has_taken = false;
  while (true) {
    tls.may_have_more = true;
    TlsSession::Status status = tls.session->handshake(&tls.input, &tls.output);
    if (status == TlsSession::Status::kOk && !tls.told_secure) return Fill::kGot;
    if (status == TlsSession::Status::kOk) {
      status = tls.session->read(&tls.input, buffer, capacity, length, &tls.output);
    }
    if (status == TlsSession::Status::kOk) return Fill::kGot;
    if (status == TlsSession::Status::kClosed) return Fill::kEnd;
    if (status == TlsSession::Status::kFailed) {
      const VELError error = tls.session->error();
      flush();  // the alert
      if (state() == State::kOpen) end(error);
      return Fill::kFailed;
    }
    tls.may_have_more = false;
    const bool is_full = tls.output.size() - tls.output_sent > kMostOutput;
    if (is_full || (hasUnsent() && !tls.session->isHandshakeDone())) flush();
    if (!is_readable_ || state() != State::kOpen || (is_full && !is_writable_)) {
      return Fill::kWouldBlock;
    }
    // Records without a byte for anybody count, too: others want their turn.
    if (std::exchange(has_taken, true)) return Fill::kGot;
    std::vector<uint8_t>& ciphertext = workspace.ciphertext();
    size_t got = 0;
    const Fill result = fillPlain(ciphertext.data(), ciphertext.size(), &got);
    if (result != Fill::kGot) return result;
    tls.input = {reinterpret_cast<const char*>(ciphertext.data()), got};
    tls.received.clear();
  }
}

}  // namespace vel
