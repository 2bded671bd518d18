// LoadLoop: what all kinds of load share: the wait for events, connections from many addresses, and
// the count of what is still to be sent and to be answered.
#pragma once

#include <cstddef>
#include <cstdint>

#include "load_options.h"
#include "load_stream.h"

namespace bench {

// Queue:   the one thread of the load program.
class LoadLoop {
 public:
  explicit LoadLoop(const LoadOptions& options);
  LoadLoop(const LoadLoop&) = delete;
  LoadLoop& operator=(const LoadLoop&) = delete;
  virtual ~LoadLoop() = default;

  // Sends that many requests over `count` connections from `first` on, opening those that are
  // not open, and returns when each has been answered or has failed.
  void run(std::uint64_t requests, std::size_t first, std::size_t count);
  // Opens all connections, with a request on each. In groups, since a listener's backlog may be
  // short.
  void openAll();
  [[nodiscard]] std::uint64_t errors() const { return errors_; }
  [[nodiscard]] std::uint64_t bytes() const { return bytes_; }

 protected:
  // Sends what is next on a connection with nothing outstanding, opening it if need be.
  virtual void begin(std::size_t index) = 0;
  virtual void handle(std::size_t index, std::uint32_t events) = 0;

  // Opens the stream and watches it, for space too.
  void open(LoadStream& stream, std::size_t index, std::size_t answer = 0);
  void watch(const LoadStream& stream, std::size_t index, std::uint32_t events) const;
  // Takes up to `most` of the requests that are to be sent.
  std::size_t take(std::size_t most);
  [[nodiscard]] bool allTaken() const { return toSend_ == 0; }
  void finish(std::uint64_t requests) { toFinish_ -= requests; }
  void countBytes(ssize_t count) { bytes_ += static_cast<std::uint64_t>(count); }
  void countError(std::uint64_t lost);
  [[nodiscard]] const LoadOptions& options() const { return options_; }

 private:
  const LoadOptions& options_;
  SSL_CTX* const context_;
  const int epoll_;
  std::uint32_t nextSource_ = 0;
  std::uint64_t toSend_ = 0;
  std::uint64_t toFinish_ = 0;
  std::uint64_t errors_ = 0;
  std::uint64_t bytes_ = 0;
};

}  // namespace bench
