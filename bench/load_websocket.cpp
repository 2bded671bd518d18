// Frames, the opening handshake, and who sends when.
#include "load_websocket.h"

#include <sys/epoll.h>

namespace bench {
namespace {

// The example of RFC 6455 §1.3.
constexpr std::string_view kKey = "dGhlIHNhbXBsZSBub25jZQ==";
constexpr std::string_view kAccept = "s3pPLMBiTxaQ9kYGzzhZRbK+xOo=\r\n";
constexpr std::string_view kSwitching = "HTTP/1.1 101 ";

std::string requestText(const LoadOptions& options) {
  return "GET " + options.path +
         " HTTP/1.1\r\nHost: 127.0.0.1:8080\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
         "Sec-WebSocket-Version: 13\r\nSec-WebSocket-Key: " +
         std::string(kKey) + "\r\n\r\n";
}

void appendByte(std::string& text, std::uint64_t value) {
  text.push_back(static_cast<char>(static_cast<unsigned char>(value)));
}

// RFC 6455 §5.2: one final frame.
void appendFrameHead(std::string& text, std::size_t size, bool isText, bool isMasked) {
  appendByte(text, isText ? 0x81 : 0x82);
  const unsigned mask = isMasked ? 0x80 : 0;
  int shift = 0;
  if (size <= 125) {
    appendByte(text, mask | size);
    return;
  }
  if (size < 65'536) {
    appendByte(text, mask | 126);
    shift = 8;
  } else {
    appendByte(text, mask | 127);
    shift = 56;
  }
  for (; shift >= 0; shift -= 8) appendByte(text, std::uint64_t{size} >> shift);
}

}  // namespace

FrameRow makeFrameRow(std::size_t variant, std::size_t count, std::size_t size, bool isText) {
  FrameRow row;
  for (std::size_t i = 0; i < count; ++i) {
    const std::size_t seed = variant * 101 + i * 7;
    const std::uint64_t key = (seed + 1) * 0x9E3779B1;
    appendFrameHead(row.sent, size, isText, true);
    appendFrameHead(row.echo, size, isText, false);
    for (int shift = 24; shift >= 0; shift -= 8) appendByte(row.sent, key >> shift);
    for (std::size_t j = 0; j < size; ++j) {
      const std::uint64_t byte = 'a' + (seed + j) % 26;
      appendByte(row.echo, byte);
      appendByte(row.sent, byte ^ (key >> (24 - 8 * (j % 4))));
    }
  }
  return row;
}

WebSocketLoad::WebSocketLoad(const LoadOptions& options)
    : LoadLoop(options), request_(requestText(options)), connections_(options.connections) {
  for (std::size_t i = 0; i < kRows; ++i) {
    rows_[i] = makeFrameRow(i, options.depth, options.body, options.isText);
  }
}

void WebSocketLoad::begin(std::size_t index) {
  if (allTaken()) return;
  Connection& connection = connections_[index];
  if (!connection.stream.isOpen()) connect(index);
  connection.outstanding = take(options().depth);
  if (connection.isOpen) sendRow(index);
}

void WebSocketLoad::connect(std::size_t index) {
  Connection& connection = connections_[index];
  connection = Connection{};
  open(connection.stream, index);
  connection.watchesSpace = true;
  connection.unsent = request_;
}

void WebSocketLoad::opened(std::size_t index) { sendRow(index); }

void WebSocketLoad::sendRow(std::size_t index) {
  Connection& connection = connections_[index];
  const FrameRow& frames = row(connection.row++);
  const auto beginning = [&](std::string_view text) {
    return text.substr(0, text.size() / options().depth * connection.outstanding);
  };
  connection.unsent = beginning(frames.sent);
  connection.awaited = beginning(frames.echo);
  send(index);
}

void WebSocketLoad::send(std::size_t index) {
  Connection& connection = connections_[index];
  while (!connection.unsent.empty()) {
    const ssize_t count = connection.stream.send(connection.unsent);
    if (count == LoadStream::kEnded) return ended(index);
    if (count == 0) break;
    connection.unsent.remove_prefix(static_cast<std::size_t>(count));
  }
  const bool wanted = !connection.unsent.empty();
  if (wanted == connection.watchesSpace) return;
  connection.watchesSpace = wanted;
  watch(connection.stream, index, wanted ? EPOLLIN | EPOLLOUT : EPOLLIN);
}

void WebSocketLoad::handle(std::size_t index, std::uint32_t events) {
  const LoadStream& stream = connections_[index].stream;
  if (!stream.isOpen()) return;
  if ((events & EPOLLOUT) != 0) send(index);
  if (stream.isOpen() && (events & (EPOLLIN | EPOLLHUP | EPOLLERR)) != 0) receive(index);
}

void WebSocketLoad::receive(std::size_t index) {
  Connection& connection = connections_[index];
  const ssize_t count = connection.stream.receive(buffer_.data(), buffer_.size());
  if (count == 0) return;
  if (count == LoadStream::kEnded) return ended(index);
  countBytes(count);
  const std::string_view bytes(buffer_.data(), static_cast<std::size_t>(count));
  if (!connection.isOpen) {
    if (!receiveHead(index, bytes)) ended(index);
    return;
  }
  // Bytes that nobody asked for are no prefix either.
  if (connection.awaited.substr(0, bytes.size()) != bytes) return ended(index);
  connection.awaited.remove_prefix(bytes.size());
  if (connection.awaited.empty()) received(index);
}

bool WebSocketLoad::receiveHead(std::size_t index, std::string_view bytes) {
  Connection& connection = connections_[index];
  connection.head.append(bytes);
  const std::size_t end = connection.head.find("\r\n\r\n");
  if (end == std::string::npos) return true;
  if (end + 4 != connection.head.size() ||
      connection.head.compare(0, kSwitching.size(), kSwitching) != 0 ||
      connection.head.find(kAccept) == std::string::npos) {
    return false;
  }
  connection.head = std::string();
  connection.isOpen = true;
  opened(index);
  return true;
}

void WebSocketLoad::received(std::size_t index) {
  Connection& connection = connections_[index];
  if (!connection.unsent.empty()) fail("echoed before the whole row was sent");
  finish(connection.outstanding);
  connection.outstanding = 0;
  begin(index);
}

// The server has closed, or what it sent is wrong.
void WebSocketLoad::ended(std::size_t index) {
  Connection& connection = connections_[index];
  const std::size_t lost = connection.outstanding;
  connection.stream.close();
  connection.isOpen = false;
  finish(lost);
  countError(lost > 0 ? lost : 1);
  begin(index);
}

void BroadcastLoad::begin(std::size_t index) {
  if (!connections()[index].stream.isOpen()) {
    take(1);
    connect(index);
  } else if (index == 0) {
    startRound();
  }
}

void BroadcastLoad::opened(std::size_t) { finish(1); }

void BroadcastLoad::startRound() {
  missing_ = take(connections().size());
  if (missing_ == 0) return;
  if (missing_ < connections().size()) fail("--requests is no multiple of --connections");
  const FrameRow& frames = row(rounds_++);
  for (Connection& connection : connections()) connection.awaited = frames.echo;
  connections()[0].unsent = frames.sent;
  send(0);
}

void BroadcastLoad::received(std::size_t) {
  finish(1);
  if (--missing_ == 0) startRound();
}

void BroadcastLoad::ended(std::size_t) {
  fail("a session has ended, or received what it should not");
}

}  // namespace bench
