#include "support/memory_wire.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <stdexcept>

namespace vel::test {
namespace {

constexpr size_t kMostInPieces = 4096;

}  // namespace

bool MemoryWire::send(std::string_view bytes) {
  size_t in_pieces = piece_ == 0 ? 0 : kMostInPieces;
  while (!bytes.empty()) {
    const size_t length = in_pieces > 0 ? std::min(piece_, bytes.size()) : bytes.size();
    if (!sendPiece(bytes.substr(0, length))) return false;
    bytes.remove_prefix(length);
    in_pieces -= std::min(in_pieces, length);
  }
  return true;
}

bool MemoryWire::sendPiece(std::string_view bytes) {
  for (bool was_full = false; !bytes.empty(); loops_->run()) {
    const iovec vector{const_cast<char*>(bytes.data()), bytes.size()};
    const ptrdiff_t sent = end_->send(&vector, 1);
    if (sent < 0 && errno != EAGAIN) return false;
    if (sent < 0 && was_full) throw std::runtime_error("nobody takes the bytes");
    was_full = sent < 0;
    bytes.remove_prefix(static_cast<size_t>(std::max<ptrdiff_t>(sent, 0)));
  }
  return true;
}

bool MemoryWire::take(std::string& received) {
  std::array<char, 64 * 1024> buffer;
  while (true) {
    const ptrdiff_t length = end_->receive(buffer.data(), buffer.size());
    if (length < 0 && errno == EAGAIN) return true;
    if (length <= 0) return false;
    received.append(buffer.data(), static_cast<size_t>(length));
  }
}

bool MemoryWire::receive(std::string& received) {
  const size_t before = received.size();
  bool is_open = true;
  const bool came = loops_->runUntil([&] {
    is_open = take(received);
    return !is_open || received.size() > before;
  });
  if (!came) throw std::runtime_error("nothing came over the wire");
  return received.size() > before;
}

void MemoryWire::finishSending() {
  end_->finishSending();
  loops_->run();
}

void MemoryWire::reset() {
  end_->reset();
  loops_->run();
}

}  // namespace vel::test
