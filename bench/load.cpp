// The load's loop: who sends when, and what an answer has to look like.
#include "load.h"

#include <sys/epoll.h>

#include <algorithm>
#include <cerrno>
#include <optional>
#include <utility>

namespace bench {
namespace {

constexpr int kEventsPerWait = 512;
// Long, since a body of a gibibyte may have to reach the disk first.
constexpr int kStallMilliseconds = 60'000;
// Sources 127.0.0.2 and up: the ports of one address would be used up by connections in TIME_WAIT.
constexpr std::uint32_t kFirstSource = 2;
constexpr std::uint32_t kSourceAddresses = 64;
constexpr std::uint64_t kErrorsToGiveUp = 1000;
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
    : options_(options),
      text_(options),
      longBody_(options.expect),
      context_(options.tls ? makeClientContext() : nullptr),
      connections_(options.connections),
      epoll_(epoll_create1(EPOLL_CLOEXEC)) {
  if (epoll_ < 0) failSystem("epoll_create1");
}

void Load::connect(std::size_t index) {
  Connection& connection = connections_[index];
  connection = Connection{};
  connection.stream.open(options_.port, kFirstSource + nextSource_++ % kSourceAddresses, context_,
                         options_.take > 0 ? 0 : options_.answer);
  watch(index, EPOLL_CTL_ADD, EPOLLIN | EPOLLOUT);
  connection.watchesSpace = true;
}

void Load::watch(std::size_t index, int operation, std::uint32_t events) const {
  epoll_event event{};
  event.events = events;
  event.data.u64 = index;
  if (epoll_ctl(epoll_, operation, connections_[index].stream.descriptor(), &event) != 0) {
    failSystem("epoll_ctl");
  }
}

void Load::run(std::uint64_t requests, std::size_t first, std::size_t count) {
  toSend_ = requests;
  toFinish_ = requests;
  for (std::size_t i = first; i < first + count; ++i) begin(i);
  std::array<epoll_event, kEventsPerWait> events{};
  while (toFinish_ > 0) {
    const int ready = epoll_wait(epoll_, events.data(), kEventsPerWait, kStallMilliseconds);
    if (ready < 0 && errno != EINTR) failSystem("epoll_wait");
    if (ready == 0) fail(std::to_string(toFinish_) + " requests were not answered");
    for (int i = 0; i < ready; ++i) {
      const epoll_event& event = events[static_cast<std::size_t>(i)];
      handle(static_cast<std::size_t>(event.data.u64), event.events);
    }
  }
}

// Starts the next row of requests on a connection with none outstanding.
void Load::begin(std::size_t index) {
  if (toSend_ == 0) return;
  Connection& connection = connections_[index];
  if (!connection.stream.isOpen()) connect(index);
  connection.outstanding = options_.depth;
  if (toSend_ < connection.outstanding) connection.outstanding = static_cast<std::size_t>(toSend_);
  toSend_ -= connection.outstanding;
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
  watch(index, EPOLL_CTL_MOD, wanted ? EPOLLIN | EPOLLOUT : EPOLLIN);
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
  if (options_.answer > 0) return receiveLong(index);
  Connection& connection = connections_[index];
  const ssize_t count = connection.stream.receive(buffer_.data(), buffer_.size());
  if (count == 0) return;
  if (count == LoadStream::kEnded) return ended(index);
  bytes_ += static_cast<std::uint64_t>(count);
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
    const std::optional<Answer> answer = readAnswer(bytes, options_.expect);
    if (!answer) break;
    if (connection.unsent > 0) fail("answered before the whole request was sent");
    bytes.remove_prefix(answer->length);
    --connection.outstanding;
    if (!answer->good) countError(1);
    // With one request per connection it is over when the server has closed.
    if (!options_.newConnections) --toFinish_;
  }
  if (connection.outstanding > 0) {
    connection.carry.assign(bytes);
  } else if (!bytes.empty()) {
    countError(1);  // bytes that nobody asked for
  }
  if (connection.outstanding == 0 && !options_.newConnections) begin(index);
}

void Load::receiveLong(std::size_t index) {
  Connection& connection = connections_[index];
  if (connection.bodyEnd == 0 && !receiveLongHead(index)) return;
  // OpenSSL cannot drop.
  const bool drops = connection.compared && context_ == nullptr;
  while (connection.bodyTaken < connection.bodyEnd) {
    auto size = static_cast<std::size_t>(connection.bodyEnd - connection.bodyTaken);
    if (!drops) size = std::min(size, buffer_.size());
    const ssize_t count =
        drops ? connection.stream.drop(size) : connection.stream.receive(buffer_.data(), size);
    if (count == 0) return;
    if (count == LoadStream::kEnded) return ended(index);
    const auto length = static_cast<std::size_t>(count);
    bytes_ += length;
    if (!drops && !longBody_.matches(connection.bodyTaken, {buffer_.data(), length})) {
      return ended(index);
    }
    connection.bodyTaken += length;
  }
  connection.compared = true;
  connection.bodyEnd = 0;
  connection.outstanding = 0;
  if (options_.take > 0) connection.stream.close();
  --toFinish_;
  begin(index);
}

// Whether the head of a long answer is complete. What has come of the body with it is compared.
bool Load::receiveLongHead(std::size_t index) {
  Connection& connection = connections_[index];
  const ssize_t count = connection.stream.receive(buffer_.data(), kLongHeadReceive);
  if (count == 0) return false;
  if (count == LoadStream::kEnded) return ended(index), false;
  bytes_ += static_cast<std::uint64_t>(count);
  connection.carry.append(buffer_.data(), static_cast<std::size_t>(count));
  const std::optional<AnswerHead> head = readAnswerHead(connection.carry);
  if (!head) return false;
  const std::string_view body = std::string_view(connection.carry).substr(head->length);
  if (!head->good || head->bodyLength != options_.answer || body.size() > options_.answer ||
      !longBody_.matches(0, body)) {
    return ended(index), false;
  }
  connection.bodyTaken = body.size();
  connection.bodyEnd = options_.take > 0 ? options_.take : options_.answer;
  connection.carry.clear();
  return true;
}

// The server has closed: the end of a request where each has its own connection, else a fault. A
// long answer that is wrong ends its connection in the same way.
void Load::ended(std::size_t index) {
  Connection& connection = connections_[index];
  const std::size_t lost = connection.outstanding;
  connection.stream.close();
  if (options_.newConnections) {
    --toFinish_;
    if (lost > 0) countError(1);
  } else {
    toFinish_ -= lost;
    countError(lost > 0 ? lost : 1);
  }
  begin(index);
}

void Load::countError(std::uint64_t lost) {
  errors_ += lost;
  if (errors_ > kErrorsToGiveUp) fail("more than 1000 requests failed");
}

}  // namespace bench
