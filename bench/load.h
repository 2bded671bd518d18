// Load: the load of HTTP requests, which checks every answer.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "load_answer.h"
#include "load_loop.h"
#include "load_options.h"
#include "load_stream.h"

namespace bench {

// Queue:   the one thread of the load program.
class Load : public LoadLoop {
 public:
  explicit Load(const LoadOptions& options);

 private:
  struct Connection {
    LoadStream stream;
    std::size_t outstanding = 0;
    std::uint64_t unsent = 0;    // bytes at the end of the row of requests
    std::uint64_t rowBytes = 0;  // length of the row of requests being sent
    bool watchesSpace = false;
    std::string carry;  // the beginning of an answer that was split, or of its head if it is long
    std::uint64_t bodyTaken = 0;  // of a long answer
    std::uint64_t bodyEnd = 0;    // how much of it is wanted; 0 before its head is complete
    bool compared = false;        // a whole long answer has been
  };

  void begin(std::size_t index) override;
  void handle(std::size_t index, std::uint32_t events) override;
  void connect(std::size_t index);
  void send(std::size_t index);
  void receive(std::size_t index);
  void digest(std::size_t index, std::string_view bytes);
  // Compares the first answer on a connection. Of the others the kernel drops what does not come
  // with the head, so that the load does not displace the server's data from the caches.
  void receiveLong(std::size_t index);
  bool receiveLongHead(std::size_t index);
  void ended(std::size_t index);

  static constexpr std::size_t kReceiveSize = 64 * 1024;

  const RequestText text_;
  const RepeatedBody longBody_;
  std::vector<Connection> connections_;
  std::array<char, kReceiveSize> buffer_{};
};

}  // namespace bench
