// TcpSocket, the way of the bytes: system calls, and TLS between them and the rest.
#include <sys/socket.h>
#include <sys/uio.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "platform/tcp_socket.h"
#include "platform/workspace.h"

namespace vel {
namespace {

// Plain bytes that are encrypted before the first of them is sent.
constexpr size_t kEncryptAhead = 64 * 1024;

VELError errorOf(int error) {
  if (error == ECONNRESET || error == EPIPE) {
    return VELError(VELSocketErrorDomain, kVELSocketClosed, "The peer reset the connection.");
  }
  return VELError(VELPOSIXErrorDomain, error, std::strerror(error));
}

}  // namespace

ptrdiff_t TcpSocket::sendVectors(const iovec* vectors, int count) {
  ptrdiff_t sent = 0;
  do {
    if (count == 1) {
      sent = ::send(fd_, vectors[0].iov_base, vectors[0].iov_len, MSG_NOSIGNAL);
    } else {
      msghdr message{};
      message.msg_iov = const_cast<iovec*>(vectors);
      message.msg_iovlen = static_cast<size_t>(count);
      sent = ::sendmsg(fd_, &message, MSG_NOSIGNAL);
    }
  } while (sent < 0 && errno == EINTR);
  return sent;
}

void TcpSocket::gotWriteError(int error) {
  if (error == EAGAIN) {
    is_writable_ = false;
  } else {
    end(errorOf(error));
  }
}

// Sends what the system takes now.
void TcpSocket::flush() {
  if (state() != State::kOpen) return;
  if (tls_) return flushTls();
  while (outgoing_ && !outgoing_->isSent() && is_writable_) {
    iovec vectors[Outgoing::kMostVectors];
    const int count = outgoing_->vectors(vectors, Outgoing::kMostVectors);
    size_t offered = 0;
    for (int i = 0; i < count; ++i) offered += vectors[i].iov_len;
    const ptrdiff_t sent = sendVectors(vectors, count);
    if (sent < 0) return gotWriteError(errno);
    outgoing_->didSend(static_cast<size_t>(sent));
    // A part means that the system's buffer is full: it will tell when there is room.
    if (static_cast<size_t>(sent) < offered) is_writable_ = false;
  }
}

void TcpSocket::flushTls() {
  Tls& tls = *tls_;
  while (is_writable_) {
    if (tls.output_sent < tls.output.size()) {
      const iovec vector{tls.output.data() + tls.output_sent, tls.output.size() - tls.output_sent};
      const ptrdiff_t sent = sendVectors(&vector, 1);
      if (sent < 0) return gotWriteError(errno);
      tls.output_sent += static_cast<size_t>(sent);
      if (tls.output_sent < tls.output.size()) {
        is_writable_ = false;
        return;
      }
    }
    tls.output_sent = 0;
    tls.output.clear();
    if (tls.output.capacity() > 2 * kEncryptAhead) tls.output.shrink_to_fit();
    if (outgoing_) outgoing_->didSend(std::exchange(tls.plain_in_output, 0));
    if (!tls.session->isHandshakeDone() || !outgoing_ || outgoing_->isSent()) return;
    iovec vectors[Outgoing::kMostVectors];
    const int count = outgoing_->vectors(vectors, Outgoing::kMostVectors);
    for (int i = 0; i < count && tls.plain_in_output < kEncryptAhead; ++i) {
      const size_t length = std::min(vectors[i].iov_len, kEncryptAhead - tls.plain_in_output);
      const std::string_view plain(static_cast<const char*>(vectors[i].iov_base), length);
      if (tls.session->write(plain, &tls.output) != TlsSession::Status::kOk) {
        return end(tls.session->error());
      }
      tls.plain_in_output += length;
    }
  }
}

TcpSocket::Fill TcpSocket::fill(uint8_t* buffer, size_t capacity, size_t* length,
                                Workspace& workspace) {
  return tls_ ? fillTls(buffer, capacity, length, workspace) : fillPlain(buffer, capacity, length);
}

TcpSocket::Fill TcpSocket::fillPlain(uint8_t* buffer, size_t capacity, size_t* length) {
  *length = 0;
  ptrdiff_t got = 0;
  do {
    got = ::recv(fd_, buffer, capacity, 0);
  } while (got < 0 && errno == EINTR);
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

TcpSocket::Fill TcpSocket::fillTls(uint8_t* buffer, size_t capacity, size_t* length,
                                   Workspace& workspace) {
  Tls& tls = *tls_;
  *length = 0;
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
    if (unsentLength() > 0 && !tls.session->isHandshakeDone()) flush();
    if (!is_readable_ || state() != State::kOpen) return Fill::kWouldBlock;
    std::vector<uint8_t>& ciphertext = workspace.ciphertext();
    size_t got = 0;
    const Fill result = fillPlain(ciphertext.data(), ciphertext.size(), &got);
    if (result != Fill::kGot) return result;
    tls.input = {reinterpret_cast<const char*>(ciphertext.data()), got};
    tls.received.clear();
  }
}

}  // namespace vel
