// Reading a request: the lines of its head, its route, its body.
#include <chrono>
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

}  // namespace

void ConnectionEngine::startReadingRequest() {
  std::shared_ptr<const ConfigurationSnapshot> holder;
  readHeadLine(configuration_.current(&holder).limits);
}

void ConnectionEngine::readHeadLine(const VELLimits& limits) {
  socket_->readDataToData(VELSocket::CRLFData(), limits.headLineTimeout, limits.headLineLength,
                          kHeadLineTag);
}

void ConnectionEngine::socketDidReadData(VELSocket& /*socket*/, const VELData& data, int64_t tag) {
  if (is_dead_) return;
  if (tag == kHeadLineTag) {
    headLineDidCome(data.view());
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
  if (!exchange_) {
    disarm();
    beginExchange();
  }
  const VELLimits& limits = exchange_->configuration->limits;
  switch (exchange_->head_reader.didRead(line, &exchange_->request->head(), limits)) {
    case HeadStep::kReadLine:
      readHeadLine(limits);
      break;
    case HeadStep::kComplete:
      headDidComplete();
      break;
    case HeadStep::kMalformed:
      logLine("Invalid request data");
      sendFixedAnswer(FixedAnswer::kInvalidRequest);
      break;
    case HeadStep::kTooLong:
      socket_->disconnect();
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
      socket_->disconnect();
      break;
  }
}

}  // namespace vel
