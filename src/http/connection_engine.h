// ConnectionEngine: the conductor of one HTTP connection. It owns the socket's events and decides
// what comes next; reading heads and bodies, keeping bodies, dispatch and transmission are parts of
// their own.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <exception>
#include <memory>
#include <optional>
#include <string_view>

#include "corvane/error.h"
#include "corvane/response.h"
#include "corvane/serial_queue.h"
#include "corvane/server.h"
#include "corvane/socket.h"
#include "corvane/uuid.h"
#include "http/connection_configuration.h"
#include "http/exchange.h"
#include "http/fixed_answers.h"

class VELHTTPConnection;

namespace vel {

class ResponseCall;

/// What stands behind a VELHTTPConnection. It is created, started, reads and answers one request
/// after the other, and dies with its socket, or without it when a route has taken the socket over.
///
/// An idle connection consists of this object, its socket and its queue; what a request needs lives
/// in an Exchange.
///
/// Owner:   the connection. Weak and strong references to it are references to the connection.
/// Queue:   the connection's, except where it says so.
class ConnectionEngine final : public VELSocketDelegate, public LastResort {
 public:
  ConnectionEngine(VELHTTPConnection& connection, std::shared_ptr<VELSocket> socket,
                   const std::shared_ptr<VELServer>& server);
  ~ConnectionEngine() override = default;

  /// Queue:   these may be called on any thread.
  void start();
  void close();
  void closeAtOnce();
  void closeWhenIdle();
  std::shared_ptr<VELSocket> socket() const;
  std::shared_ptr<VELServer> server() const { return server_.lock(); }
  VELUUID identifier() const { return identifier_; }
  ConnectionConfiguration& configuration() noexcept { return configuration_; }
  /// The answer of a route.
  void takeAnswer(std::shared_ptr<VELResponse> response, std::optional<VELError> error);
  /// The route wants to know when nobody waits for its answer any more.
  void whenClientLeaves(std::shared_ptr<const ResponseCall> call, std::function<void()> callback);
  /// The route has let go of its response handler without an answer.
  void answerWillNotCome();

  void socketDidReadData(VELSocket& socket, const VELData& data, int64_t tag) override;
  void socketDidWriteDataWithTag(VELSocket& socket, int64_t tag) override;
  void socketDidDisconnect(VELSocket& socket, const std::optional<VELError>& error) override;
  void workDidThrow(const std::exception_ptr& exception) override;

 private:
  // Life: connection_engine.cpp.
  std::shared_ptr<ConnectionEngine> self();
  void startConnection();
  void closeAfterWriting();
  void holdUntilDeath();
  void die();
  void leaveServer();

  // Reading: connection_reading.cpp.
  void startReadingRequest();
  void startReadingNextRequest(double keep_alive_interval);
  void readHeadLine(std::chrono::milliseconds timeout, const VELLimits& limits);
  void beginExchange();
  void headLineDidCome(std::string_view line);
  void headDidComplete();
  bool selectRoute();
  void bodyDidCome(std::string_view bytes, int64_t tag);
  void takeStep(const BodyStep& step);
  void waitForEnd();
  void strand();

  // Answering: connection_answering.cpp.
  void handleRequest();
  void prepareRequest();
  void evaluate();
  void didFinishRequest(std::shared_ptr<VELResponse> response,
                        const std::optional<VELError>& error);
  void sendResponse();
  void sendFixedAnswer(FixedAnswer answer, const VELError* error = nullptr);
  void didProgress(Progress progress);
  void abandon();
  void finishAnswer();
  void finishAnswerAndClose();
  void tellResponseThatItIsDone();
  bool shouldDie() const;

  VELHTTPConnection& connection_;
  const std::shared_ptr<VELSocket> socket_;
  const std::shared_ptr<VELSerialQueue> queue_;
  const std::weak_ptr<VELServer> server_;
  const VELUUID identifier_;
  ConnectionConfiguration configuration_;

  // Belongs to the queue.
  std::unique_ptr<Exchange> exchange_;
  // Holds the connection from `close` until it has died, since the server may have forgotten it by
  // then.
  std::unique_ptr<const std::shared_ptr<ConnectionEngine>> held_until_death_;
  bool is_dead_ = false;
  bool has_left_server_ = false;
  bool closes_after_answer_ = false;
  // Written on the queue.
  std::atomic<bool> is_disconnected_{false};
};

}  // namespace vel
