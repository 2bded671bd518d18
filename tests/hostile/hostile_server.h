// HostileServer: a server with a route for every way in which a client can be left hanging, and the
// search for what such a client has left behind.
#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <string>

#include "corvane/response.h"
#include "support/held_answers.h"
#include "support/temporary_directory.h"
#include "support/test_server.h"

namespace vel::test {

// ThreadSanitizer makes everything some ten times slower.
#ifdef __SANITIZE_THREAD__
inline constexpr size_t kSlowness = 10;
#else
inline constexpr size_t kSlowness = 1;
#endif

/// A body of `length` bytes that is made as it is read.
class GeneratedResponse : public VELResponse {
 public:
  GeneratedResponse(uint64_t length, bool isChunked);
  VELData readDataOfLength(uint64_t length) override;
  bool isFinished() const override { return left_ == 0; }

 private:
  uint64_t left_;
};

/// | path      | answers                                              |
/// | --------- | ---------------------------------------------------- |
/// | /text     | "Hello"                                              |
/// | /upload   | POST: the length of the body; files from 65 bytes on |
/// | /large    | `kLarge` bytes, more than systems keep               |
/// | /chunks   | the same in chunks                                   |
/// | /held     | when the test says so                                |
/// | /dropped  | never: the handler is destroyed                      |
class HostileServer {
 public:
  static constexpr size_t kLarge = 8 << 20;

  explicit HostileServer(Transport transport, size_t loops = 1);
  HostileServer(const HostileServer&) = delete;
  HostileServer& operator=(const HostileServer&) = delete;
  ~HostileServer() { ::unsetenv("TMPDIR"); }

  TestServer& operator*() { return *server_; }
  TestServer* operator->() { return server_.get(); }
  HeldAnswers& held() { return held_; }

  /// A connection of its own comes, is served and has gone: every loop event before it was handled.
  void takeTurn();
  /// Pushes the clock and lets the loop notice.
  void passTime(std::chrono::seconds time);
  /// Takes turns until `isTrue`; false when that takes too long.
  bool takeTurnsUntil(const std::function<bool()>& isTrue);
  /// Files of bodies.
  size_t uploads() const;
  /// No connection, no descriptor, `uploads` files of bodies; and the server still answers.
  void expectNothingLeft(size_t uploads = 0);

 private:
  const TemporaryDirectory directory_;
  HeldAnswers held_;
  std::unique_ptr<TestServer> server_;
  // Open while there is no client.
  size_t descriptors_ = 0;
};

}  // namespace vel::test
