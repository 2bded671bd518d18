// The loads by name, the options one by one, and the requests that they ask for.
#include "load_options.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "browser_fields.h"

namespace bench {
namespace {

constexpr std::size_t kChunk = std::size_t{16} * 1024;
constexpr std::size_t kBlockOfChunks = 16;
constexpr std::uint64_t kMebibyte = std::uint64_t{1024} * 1024;

void setUpload(LoadOptions& options) {
  options.body = kMebibyte;
  options.connections = 8;
}

void setMessages(LoadOptions& options, std::uint64_t size, std::size_t depth = 1) {
  options.webSocket = true;
  options.body = size;
  options.depth = depth;
}

bool setMessageLoad(std::string_view name, LoadOptions& options) {
  if (name == "ws-16") {
    setMessages(options, 16);
  } else if (name == "ws-16x16") {
    setMessages(options, 16, 16);
  } else if (name == "ws-16k" || name == "ws-16k-text") {
    setMessages(options, std::uint64_t{16} * 1024);
    options.isText = name != "ws-16k";
  } else if (name == "ws-idle") {
    setMessages(options, 16);
    options.idle = true;
    options.connections = 10'000;
  } else if (name == "ws-broadcast") {
    setMessages(options, 64);
    options.broadcast = true;
    options.opensFirst = true;
    options.connections = 5000;
  } else {
    return false;
  }
  return true;
}

void setLoad(std::string_view name, LoadOptions& options) {
  if (name == "keep-alive" || setMessageLoad(name, options)) return;
  if (name == "browser") {
    options.browserHead = true;
  } else if (name == "pipelined") {
    options.depth = 16;
  } else if (name == "connection") {
    options.newConnections = true;
  } else if (name == "tls") {
    options.tls = true;
  } else if (name == "tls-handshake") {
    options.tls = true;
    options.newConnections = true;
  } else if (name == "upload") {
    setUpload(options);
  } else if (name == "upload-chunked") {
    setUpload(options);
    options.chunked = true;
  } else if (name == "idle") {
    options.idle = true;
    options.connections = 10'000;
  } else {
    fail("unknown load: " + std::string(name));
  }
}

bool setFlag(std::string_view name, LoadOptions& options) {
  if (name == "--wait") {
    options.waits = true;
  } else if (name == "--open") {
    options.opensFirst = true;
  } else {
    return false;
  }
  return true;
}

std::uint64_t number(std::string_view name, const char* text) {
  char* end = nullptr;
  const unsigned long long value = std::strtoull(text, &end, 10);
  if (end == text || *end != '\0') fail(std::string(name) + " wants a number, not " + text);
  return value;
}

void setOption(std::string_view name, const char* value, LoadOptions& options) {
  if (name == "--load") {
    setLoad(value, options);
  } else if (name == "--port") {
    options.port = static_cast<std::uint16_t>(number(name, value));
  } else if (name == "--connections") {
    options.connections = number(name, value);
  } else if (name == "--requests") {
    options.requests = number(name, value);
  } else if (name == "--warmup") {
    options.warmup = number(name, value);
  } else if (name == "--fields") {
    options.fields = number(name, value);
  } else if (name == "--body") {
    options.body = number(name, value);
  } else if (name == "--answer") {
    options.answer = number(name, value);
  } else if (name == "--take") {
    options.take = number(name, value);
  } else if (name == "--path") {
    options.path = value;
  } else if (name == "--expect") {
    options.expect = value;
  } else {
    fail("unknown option: " + std::string(name));
  }
}

std::string chunk() {
  char size[16];
  std::snprintf(size, sizeof size, "%zx\r\n", kChunk);
  return size + std::string(kChunk, 'x') + "\r\n";
}

std::string headText(const LoadOptions& options) {
  std::string head = options.body > 0 ? "POST " : "GET ";
  head += options.path + " HTTP/1.1\r\nHost: 127.0.0.1:8080\r\n";
  if (options.browserHead) head += kBrowserFields;
  for (std::size_t i = 1; i < options.fields; ++i) {
    const std::string digits = std::to_string(100 + i);
    head.append("X-Field-").append(digits).append(": value-").append(digits).append("\r\n");
  }
  if (options.newConnections) head += "Connection: close\r\n";
  if (options.chunked) {
    head += "Transfer-Encoding: chunked\r\n";
  } else if (options.body > 0) {
    head += "Content-Length: " + std::to_string(options.body) + "\r\n";
  }
  return head + "\r\n";
}

}  // namespace

void fail(const std::string& what) {
  std::fprintf(stderr, "bench_load_client: %s\n", what.c_str());
  std::exit(1);
}

void failSystem(const char* what) { fail(std::string(what) + ": " + std::strerror(errno)); }

LoadOptions readOptions(int argc, char** argv) {
  LoadOptions options;
  for (int i = 1; i < argc; ++i) {
    if (setFlag(argv[i], options)) continue;
    if (i + 1 == argc) fail("a value is missing after " + std::string(argv[i]));
    setOption(argv[i], argv[i + 1], options);
    ++i;
  }
  if (options.port == 0) fail("--port is missing");
  if (options.take > options.answer) fail("--take is more than --answer");
  if (options.answer > 0 && (options.depth > 1 || options.newConnections)) {
    fail("--answer is for one request at a time on connections that stay");
  }
  if (options.chunked && options.body % kChunk != 0) fail("--body is no multiple of a chunk");
  return options;
}

RequestText::RequestText(const LoadOptions& options) {
  const std::string head = headText(options);
  headLength_ = head.size();
  for (std::size_t i = 0; i < options.depth; ++i) heads_ += head;
  if (options.body == 0) return;
  if (options.chunked) {
    const std::string one = chunk();
    for (std::size_t i = 0; i < kBlockOfChunks; ++i) block_ += one;
    bodyLength_ = options.body / kChunk * one.size();
    tail_ = "0\r\n\r\n";
  } else {
    block_.assign(kBlockOfChunks * kChunk, 'x');
    bodyLength_ = options.body;
  }
}

std::string_view RequestText::at(std::uint64_t offset) const {
  if (offset < heads_.size()) {
    return std::string_view(heads_).substr(static_cast<std::size_t>(offset));
  }
  offset -= heads_.size();
  if (offset >= bodyLength_) {
    return std::string_view(tail_).substr(static_cast<std::size_t>(offset - bodyLength_));
  }
  const std::string_view rest =
      std::string_view(block_).substr(static_cast<std::size_t>(offset % block_.size()));
  return rest.substr(
      0, static_cast<std::size_t>(std::min<std::uint64_t>(rest.size(), bodyLength_ - offset)));
}

}  // namespace bench
