// Who sends when, and what an answer has to look like.
#include "load.h"

#include <sys/epoll.h>

#include <algorithm>
#include <optional>
#include <utility>

namespace bench {
namespace {

// The head of a long answer, and no more of its body than is cheap to copy.
constexpr std::size_t kLongHeadReceive = 8192;

struct Answer {
  std::size_t length = 0;
  bool good = false;
};

// The first answer in the bytes, or nothing while it is not complete.
std::optional<Answer> readAnswer(std::string_view bytes, std::string_view expected) {
  const std::optional<AnswerHead> head = readAnswerHead(bytes);
  if (!head || bytes.size() - head->length < head->bodyLength) return std::nullopt;
  const std::string_view body =
      bytes.substr(head->length, static_cast<std::size_t>(head->bodyLength));
  return Answer{head->length + body.size(), head->good && body == expected};
}

}  // namespace

Load::Load(const LoadOptions& options)
    : LoadLoop(options),
      text_(options),
      longBody_(options.expect),
      connections_(options.connections) {}

void Load::connect(std::size_t index) {
  Connection& connection = connections_[index];
  connection = Connection{};
  open(connection.stream, index, options().take > 0 ? 0 : options().answer);
  connection.watchesSpace = true;
}

// Starts the next row of requests on a connection with none outstanding.
void Load::begin(std::size_t index) {
  if (allTaken()) return;
  Connection& connection = connections_[index];
  if (!connection.stream.isOpen()) connect(index);
  connection.outstanding = take(options().depth);
  connection.rowBytes = connection.outstanding * text_.requestLength();
  connection.unsent = connection.rowBytes;
  // A fresh connection sends when it is told to be open, as a client at a distance would.
  if (!connection.watchesSpace) send(index);
}

void Load::send(std::size_t index) {
  Connection& connection = connections_[index];
  while (connection.unsent > 0) {
    const std::string_view piece = text_.at(connection.rowBytes - connection.unsent);
    const ssize_t count =
        connection.stream.send(piece.substr(0, static_cast<std::size_t>(connection.unsent)));
    if (count == LoadStream::kEnded) return ended(index);
    if (count == 0) break;
    connection.unsent -= static_cast<std::uint64_t>(count);
  }
  const bool wanted = connection.unsent > 0 && connection.stream.waitsForSpace();
  if (wanted == connection.watchesSpace) return;
  connection.watchesSpace = wanted;
  watch(connection.stream, index, wanted ? EPOLLIN | EPOLLOUT : EPOLLIN);
}

// Whatever has come may be what TLS waited for to send.
void Load::handle(std::size_t index, std::uint32_t events) {
  const Connection& connection = connections_[index];
  if (!connection.stream.isOpen()) return;
  const bool handshakes = connection.unsent > 0 && !connection.watchesSpace;
  if ((events & EPOLLOUT) != 0 || handshakes) send(index);
  if (connection.stream.isOpen() && (events & (EPOLLIN | EPOLLHUP | EPOLLERR)) != 0) {
    receive(index);
  }
}

void Load::receive(std::size_t index) {
  if (options().answer > 0) return receiveLong(index);
  Connection& connection = connections_[index];
  const ssize_t count = connection.stream.receive(buffer_.data(), buffer_.size());
  if (count == 0) return;
  if (count == LoadStream::kEnded) return ended(index);
  countBytes(count);
  const std::string_view received(buffer_.data(), static_cast<std::size_t>(count));
  if (connection.carry.empty()) {
    digest(index, received);
  } else {
    const std::string joined = std::exchange(connection.carry, {}).append(received);
    digest(index, joined);
  }
}

void Load::digest(std::size_t index, std::string_view bytes) {
  Connection& connection = connections_[index];
  while (connection.outstanding > 0) {
    const std::optional<Answer> answer = readAnswer(bytes, options().expect);
    if (!answer) break;
    if (connection.unsent > 0) fail("answered before the whole request was sent");
    bytes.remove_prefix(answer->length);
    --connection.outstanding;
    if (!answer->good) countError(1);
    // With one request per connection it is over when the server has closed.
    if (!options().newConnections) finish(1);
  }
  if (connection.outstanding > 0) {
    connection.carry.assign(bytes);
  } else if (!bytes.empty()) {
    countError(1);  // bytes that nobody asked for
  }
  if (connection.outstanding == 0 && !options().newConnections) begin(index);
}

void Load::receiveLong(std::size_t index) {
  Connection& connection = connections_[index];
  if (connection.bodyEnd == 0 && !receiveLongHead(index)) return;
  // OpenSSL cannot drop.
  const bool drops = connection.compared && !options().tls;
  while (connection.bodyTaken < connection.bodyEnd) {
    auto size = static_cast<std::size_t>(connection.bodyEnd - connection.bodyTaken);
    if (!drops) size = std::min(size, buffer_.size());
    const ssize_t count =
        drops ? connection.stream.drop(size) : connection.stream.receive(buffer_.data(), size);
    if (count == 0) return;
    if (count == LoadStream::kEnded) return ended(index);
    const auto length = static_cast<std::size_t>(count);
    countBytes(count);
    if (!drops && !longBody_.matches(connection.bodyTaken, {buffer_.data(), length})) {
      return ended(index);
    }
    connection.bodyTaken += length;
  }
  connection.compared = true;
  connection.bodyEnd = 0;
  connection.outstanding = 0;
  if (options().take > 0) connection.stream.close();
  finish(1);
  begin(index);
}

// Whether the head of a long answer is complete. What has come of the body with it is compared.
bool Load::receiveLongHead(std::size_t index) {
  Connection& connection = connections_[index];
  const ssize_t count = connection.stream.receive(buffer_.data(), kLongHeadReceive);
  if (count == 0) return false;
  if (count == LoadStream::kEnded) return ended(index), false;
  countBytes(count);
  connection.carry.append(buffer_.data(), static_cast<std::size_t>(count));
  const std::optional<AnswerHead> head = readAnswerHead(connection.carry);
  if (!head) return false;
  const std::string_view body = std::string_view(connection.carry).substr(head->length);
  if (!head->good || head->bodyLength != options().answer || body.size() > options().answer ||
      !longBody_.matches(0, body)) {
    return ended(index), false;
  }
  connection.bodyTaken = body.size();
  connection.bodyEnd = options().take > 0 ? options().take : options().answer;
  connection.carry.clear();
  return true;
}

// The server has closed: the end of a request where each has its own connection, else a fault. A
// long answer that is wrong ends its connection in the same way.
void Load::ended(std::size_t index) {
  Connection& connection = connections_[index];
  const std::size_t lost = connection.outstanding;
  connection.stream.close();
  if (options().newConnections) {
    finish(1);
    if (lost > 0) countError(1);
  } else {
    finish(lost);
    countError(lost > 0 ? lost : 1);
  }
  begin(index);
}

}  // namespace bench
