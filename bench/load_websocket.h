// The loads of WebSocket messages: rows of masked frames whose echoes are compared byte by byte,
// and one message that all sessions receive.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "load_loop.h"
#include "load_options.h"
#include "load_stream.h"

namespace bench {

// Frames of equal length as they go out, and as they come back.
struct FrameRow {
  std::string sent;
  std::string echo;
};

// `count` frames of `size` bytes; each, and each frame of another `variant`, has bytes and a mask
// of its own.
FrameRow makeFrameRow(std::size_t variant, std::size_t count, std::size_t size, bool isText);

// Opens sessions, and sends `depth` messages on each, the next when all have come back.
class WebSocketLoad : public LoadLoop {
 public:
  explicit WebSocketLoad(const LoadOptions& options);

 protected:
  // Two, so that an echo of the row before is told from the right one.
  static constexpr std::size_t kRows = 2;
  static constexpr std::size_t kReceiveSize = 64 * 1024;

  struct Connection {
    LoadStream stream;
    bool isOpen = false;  // the upgrade has been answered
    bool watchesSpace = false;
    std::size_t row = 0;
    std::size_t outstanding = 0;  // messages
    std::string_view unsent;
    std::string_view awaited;
    std::string head;  // of the answer, while it is not complete
  };

  void begin(std::size_t index) override;
  void handle(std::size_t index, std::uint32_t events) override;
  virtual void opened(std::size_t index);
  // All that was awaited has come.
  virtual void received(std::size_t index);
  virtual void ended(std::size_t index);

  void connect(std::size_t index);
  void send(std::size_t index);

  [[nodiscard]] const FrameRow& row(std::size_t number) const { return rows_[number % kRows]; }
  std::vector<Connection>& connections() { return connections_; }

 private:
  void receive(std::size_t index);
  // False: the answer is not the one to an upgrade.
  bool receiveHead(std::size_t index, std::string_view bytes);
  void sendRow(std::size_t index);

  const std::string request_;
  std::array<FrameRow, kRows> rows_;
  std::vector<Connection> connections_;
  std::array<char, kReceiveSize> buffer_{};
};

// One session sends a message, all receive it, and when the last has, the next one goes out. Each
// that is received counts as a request.
class BroadcastLoad : public WebSocketLoad {
 public:
  using WebSocketLoad::WebSocketLoad;

 private:
  void begin(std::size_t index) override;
  void opened(std::size_t index) override;
  void received(std::size_t index) override;
  void ended(std::size_t index) override;
  void startRound();

  std::size_t rounds_ = 0;
  std::size_t missing_ = 0;
};

}  // namespace bench
