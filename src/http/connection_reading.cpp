// Reading a request: the lines of its head, its route, its body.
#include <algorithm>
#include <chrono>
#include <span>
#include <string>
#include <utility>

#include "http/connection_engine.h"
#include "http/request_report.h"
#include "http/tags.h"
#include "platform/log.h"
#include "platform/recycled.h"

namespace vel {

namespace {

// A slow body is never cut off.
constexpr std::chrono::milliseconds kNoTimeout{-1};
// A longer idle time is as good as none; it keeps the arithmetic of times within bounds.
constexpr double kLongestIdleSeconds = 1e9;

// How long the first line after an answer may take; no keep-alive interval stands for no idle time.
std::chrono::milliseconds idleTimeout(double keep_alive_interval,
                                      std::chrono::milliseconds head_line_timeout) {
  if (!(keep_alive_interval > 0)) return head_line_timeout;
  const std::chrono::duration<double> interval(std::min(keep_alive_interval, kLongestIdleSeconds));
  const auto idle_time = std::chrono::ceil<std::chrono::milliseconds>(interval);
  return head_line_timeout.count() < 0 ? idle_time : std::min(idle_time, head_line_timeout);
}

// What is read at once of that which is dropped.
constexpr size_t kUnwantedPiece = 4096;

}  // namespace

void ConnectionEngine::startReadingRequest() {
  std::shared_ptr<const ConfigurationSnapshot> holder;
  const VELLimits& limits = configuration_.current(&holder).limits;
  readHeadLine(limits.headLineTimeout, limits);
}

// The idle time and the time of a line both run until the first line has come: the shorter one counts.
void ConnectionEngine::startReadingNextRequest(double keep_alive_interval) {
  std::shared_ptr<const ConfigurationSnapshot> holder;
  const VELLimits& limits = configuration_.current(&holder).limits;
  readHeadLine(idleTimeout(keep_alive_interval, limits.headLineTimeout), limits);
}

void ConnectionEngine::readHeadLine(std::chrono::milliseconds timeout, const VELLimits& limits) {
  socket_->readDataToData(VELSocket::CRLFData(), timeout, limits.headLineLength, kHeadLineTag);
}

void ConnectionEngine::socketDidReadData(VELSocket& /*socket*/, const VELData& data, int64_t tag) {
  if (is_dead_) return;
  if (tag == kHeadLineTag) {
    headLineDidCome(data.view());
  } else if (tag == kUnwantedTag) {
    waitForEnd();
  } else if (tag == kNextRequestTag) {
    closeAfterWriting();
  } else {
    bodyDidCome(data.view(), tag);
  }
}

void ConnectionEngine::beginExchange() {
  auto exchange = std::make_unique<Exchange>();
  exchange->configuration = &configuration_.current(&exchange->own_configuration);
  exchange->request = makeRecycled<ReceivedRequest>();
  exchange->report = reportFactsFor(server_.lock(), *socket_);
  exchange_ = std::move(exchange);
}

void ConnectionEngine::headLineDidCome(std::string_view line) {
  if (!exchange_) beginExchange();
  const VELLimits& limits = exchange_->configuration->limits;
  HeadReader& reader = exchange_->head_reader;
  MessageHead& head = exchange_->request->head();
  HeadStep step = reader.didRead(line, &head, limits);
  if (step == HeadStep::kReadLine) {
    // Most heads come whole: their further lines need no read each.
    const std::span<const char> input = socket_->inputAtHand();
    size_t taken = 0;
    step = reader.didReadLines({input.data(), input.size()}, &taken, &head, limits);
    if (taken > 0) socket_->takeInput(taken);
  }
  switch (step) {
    case HeadStep::kReadLine:
      readHeadLine(limits.headLineTimeout, limits);
      break;
    case HeadStep::kComplete:
      headDidComplete();
      break;
    case HeadStep::kMalformed:
      logLine("Invalid request data");
      sendFixedAnswer(FixedAnswer::kInvalidRequest);
      break;
    case HeadStep::kTooLong:
      // Without an answer, but not without those to earlier requests.
      socket_->disconnectAfterWriting();
      break;
  }
}

void ConnectionEngine::headDidComplete() {
  if (!selectRoute()) {
    prepareRequest();
    sendFixedAnswer(FixedAnswer::kResourceNotFound);
    return;
  }
  Exchange& exchange = *exchange_;
  const BodyFraming framing = framingOf(exchange.request->head());
  switch (framing.kind) {
    case BodyFraming::Kind::kNone:
      handleRequest();
      break;
    case BodyFraming::Kind::kBadLength:
      logLine("Unable to parse Content-Length header into a valid number");
      prepareRequest();
      sendFixedAnswer(FixedAnswer::kInvalidRequest);
      break;
    case BodyFraming::Kind::kLength:
    case BodyFraming::Kind::kChunked:
      exchange.phase = Exchange::Phase::kBody;
      exchange.body = std::make_unique<RequestBody>(framing, exchange.head_reader.lines(),
                                                    exchange.request->identifier(),
                                                    exchange.configuration->limits);
      takeStep(exchange.body->begin());
      break;
  }
}

bool ConnectionEngine::selectRoute() {
  const ConfigurationSnapshot& configuration = *exchange_->configuration;
  std::string scratch;
  const std::string_view path = exchange_->request->head().path(&scratch);
  VELTextCheckingResult match;
  exchange_->route = configuration.route_index.firstMatch(configuration.routes, path, &match);
  if (exchange_->route == nullptr) return false;
  exchange_->request->setMatch(std::move(match));
  return true;
}

void ConnectionEngine::bodyDidCome(std::string_view bytes, int64_t tag) {
  if (!exchange_ || exchange_->phase != Exchange::Phase::kBody) return;
  takeStep(exchange_->body->didRead(bytes, tag));
}

void ConnectionEngine::waitForEnd() {
  if (closes_after_answer_) {
    closeAfterWriting();
  } else {
    socket_->readDataToLength(kUnwantedPiece, kNoTimeout, kUnwantedTag);
  }
}

// The answer never ends, so nothing can follow it. A client that has got all that it wanted does not know
// that: its next request closes the connection, and it asks again on another one.
void ConnectionEngine::strand() {
  exchange_->phase = Exchange::Phase::kAbandoned;
  if (closes_after_answer_) return closeAfterWriting();
  socket_->expectUnreadInput();
  socket_->readDataToLength(1, kNoTimeout, kNextRequestTag);
}

void ConnectionEngine::takeStep(const BodyStep& step) {
  switch (step.kind) {
    case BodyStep::Kind::kReadLine:
      socket_->readDataToData(VELSocket::CRLFData(), kNoTimeout, step.length, step.tag);
      break;
    case BodyStep::Kind::kReadBytes:
      socket_->readDataToLength(step.length, kNoTimeout, step.tag);
      break;
    case BodyStep::Kind::kComplete:
      handleRequest();
      break;
    case BodyStep::Kind::kBadSize:
      logLine("Method expects chunk size, but received something else");
      sendFixedAnswer(FixedAnswer::kInvalidRequest);
      break;
    case BodyStep::Kind::kBadChunk:
      logLine("Method expects chunk trailer, but is missing");
      sendFixedAnswer(FixedAnswer::kInvalidRequest);
      break;
    case BodyStep::Kind::kTooLong:
      socket_->disconnectAfterWriting();
      break;
  }
}

}  // namespace vel
