// What a load is: its options on the command line, and the bytes of its requests.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace bench {

struct LoadOptions {
  std::uint16_t port = 0;
  std::size_t connections = 64;
  std::size_t depth = 1;
  std::uint64_t requests = 10'000;
  std::uint64_t warmup = 0;
  std::string path = "/";
  std::string expect = "Hello, world!";
  std::uint64_t answer = 0;  // bytes of a long answer: `expect` over and over; empty: zeros
  std::uint64_t take = 0;    // bytes of it after which the load closes the connection
  std::size_t fields = 1;    // header fields of a request, "Host" among them
  std::uint64_t body = 0;    // bytes of a body that each request uploads
  bool chunked = false;      // the body goes in chunks
  bool tls = false;          // TLS 1.3
  bool browserHead = false;
  bool webSocket = false;   // `body` is the bytes of each message, `depth` their number in a row
  bool isText = false;      // the messages are text, else binary
  bool broadcast = false;   // each message is received by all
  bool idle = false;        // opens the connections in small groups, then holds them
  bool opensFirst = false;  // opens them so before anything else
  bool newConnections = false;  // one request per connection, which the server closes
  bool waits = false;           // for a line on standard input before and after the counted part
};

[[noreturn]] void fail(const std::string& what);
[[noreturn]] void failSystem(const char* what);

LoadOptions readOptions(int argc, char** argv);

// A row of `depth` equal requests, given in pieces: bodies are too large to be kept.
class RequestText {
 public:
  explicit RequestText(const LoadOptions& options);
  [[nodiscard]] std::uint64_t requestLength() const {
    return headLength_ + bodyLength_ + tail_.size();
  }
  // The bytes from `offset` on that lie together; more than none.
  [[nodiscard]] std::string_view at(std::uint64_t offset) const;

 private:
  std::string heads_;
  std::size_t headLength_ = 0;
  std::string block_;  // the body is this over and over
  std::uint64_t bodyLength_ = 0;
  std::string tail_;
};

}  // namespace bench
