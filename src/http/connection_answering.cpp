// Answering a request: its dispatch, the answer on its way, and what comes after it.
#include <typeinfo>
#include <utility>

#include "corvane/http_connection.h"
#include "corvane/responses.h"
#include "http/connection_debug.h"
#include "http/connection_engine.h"
#include "http/dispatcher.h"
#include "http/habits.h"
#include "http/request_report.h"
#include "http/response_call.h"
#include "http/tags.h"
#include "platform/recycled.h"

namespace vel {

namespace {

bool yieldsSocket(const VELResponse& response) {
  // Nearly every answer is one of these two, and telling so costs less than the search for a base.
  const std::type_info& type = typeid(response);
  if (type == typeid(VELDataResponse) || type == typeid(VELFileResponse)) return false;
  return dynamic_cast<const VELSocketYieldResponse*>(&response) != nullptr;
}

// The "Range" field, where the answer may be one in part.
std::optional<std::string_view> rangeField(const MessageHead& head, const VELResponse& response) {
  const auto range = head.field(KnownField::kRange);
  return range && takesRanges(head.method(), response.status()) ? range : std::nullopt;
}

// Whether the answer comes before the client has sent all of its request.
bool mayLeaveInput(FixedAnswer answer, const MessageHead& head) {
  if (answer == FixedAnswer::kResourceNotFound) {
    return framingOf(head).kind != BodyFraming::Kind::kNone;
  }
  return answer == FixedAnswer::kInvalidRequest;
}

}  // namespace

void ConnectionEngine::handleRequest() {
  Exchange& exchange = *exchange_;
  prepareRequest();
  if (!speaksVersion(exchange.request->head().version())) {
    sendFixedAnswer(FixedAnswer::kVersionNotSupported);
    return;
  }
  exchange.phase = Exchange::Phase::kEvaluating;
  const VELMethodList allowedMethods = exchange.route->allowedHTTPMethods();
  std::shared_ptr<VELResponse> response = answerInPlaceOfRoute(exchange, allowedMethods);
  if (response) {
    didFinishRequest(std::move(response), std::nullopt);
    return;
  }
  runLoggingExceptions([&] {
    if (allowsMethod(exchange.request->head().method(), allowedMethods)) {
      evaluate();
    } else {
      didFinishRequest(std::make_shared<VELMethodNotSupportedResponse>(), std::nullopt);
    }
  });
}

void ConnectionEngine::prepareRequest() {
  Exchange& exchange = *exchange_;
  uint64_t length = 0;
  std::optional<VELData> data;
  std::optional<VELURL> fileURL;
  if (exchange.body) {
    BodyStore& store = exchange.body->store();
    length = store.length();
    if (store.isInFile()) {
      fileURL = VELURL::fileURLWithPath(store.path());
    } else {
      data = VELData(store.takeBytes());
    }
  }
  exchange.request->prepare(connection_.weak_from_this(), length, std::move(data),
                            std::move(fileURL));
}

void ConnectionEngine::evaluate() {
  // The route may answer before it returns, and the exchange may then be over already.
  const std::shared_ptr<const ConfigurationSnapshot> holder = exchange_->own_configuration;
  VELRoute& route = *exchange_->route;
  std::shared_ptr<ResponseSink> call =
      makeRecycled<ResponseCall>(connection_.weak_from_this(), *this);
  route.evaluateWithRequest(exchange_->request, VELResponseHandler(std::move(call)));
}

void ConnectionEngine::takeAnswer(std::shared_ptr<VELResponse> response,
                                  std::optional<VELError> error) {
  if (queue_->isCurrent()) {
    didFinishRequest(std::move(response), error);
    return;
  }
  queue_->async(
      [engine = self(), answer = std::move(response), failure = std::move(error)]() mutable {
        engine->didFinishRequest(std::move(answer), failure);
      });
}

void ConnectionEngine::whenClientLeaves(std::shared_ptr<const ResponseCall> call,
                                        std::function<void()> callback) {
  if (!queue_->isCurrent()) {
    return queue_->async([engine = self(), call, callback = std::move(callback)] {
      engine->whenClientLeaves(call, callback);
    });
  }
  // An answer may have come in between, and the next request as well.
  if (call->isAnswered()) return;
  if (is_dead_) return callback();
  if (!exchange_ || exchange_->phase != Exchange::Phase::kEvaluating) return;
  exchange_->client_left = std::make_unique<const std::function<void()>>(std::move(callback));
  socket_->setEndsWithPeer(true);
}

void ConnectionEngine::answerWillNotCome() {
  queue_->async([engine = self()] {
    if (!engine->exchange_ || engine->exchange_->phase != Exchange::Phase::kEvaluating) return;
    engine->abandon();
  });
}

// The client is left waiting, but may go: its end is noticed by reading on.
void ConnectionEngine::abandon() {
  exchange_->phase = Exchange::Phase::kAbandoned;
  waitForEnd();
}

void ConnectionEngine::didFinishRequest(std::shared_ptr<VELResponse> response,
                                        const std::optional<VELError>& error) {
  // The connection may have ended, or its queue's last resort may have closed it, before the answer
  // came.
  if (!exchange_ || exchange_->phase != Exchange::Phase::kEvaluating) return;
  Exchange& exchange = *exchange_;
  if (exchange.client_left) {
    exchange.client_left = nullptr;
    socket_->setEndsWithPeer(false);
  }
  exchange.response = passedThroughMiddlewares(exchange, std::move(response), error);
  if (!exchange.response) {
    sendFixedAnswer(error ? FixedAnswer::kServerError : FixedAnswer::kNoResponse,
                    error ? &*error : nullptr);
    return;
  }
  if (yieldsSocket(*exchange.response)) {
    exchange.status = exchange.response->status();
    die();
    return;
  }
  if (connectionDebugLog().isOn()) {
    connectionDebugLog().line(
        "Route for request evaluated with response: ", exchange.request->description(), ", ",
        exchange.response->description());
  }
  sendResponse();
}

void ConnectionEngine::sendResponse() {
  Exchange& exchange = *exchange_;
  exchange.phase = Exchange::Phase::kSending;
  const MessageHead& head = std::as_const(*exchange.request).head();
  exchange.transmitter.emplace(*socket_, *exchange.response, exchange.configuration->limits,
                               exchange.sent, rangeField(head, *exchange.response));
  exchange.status = exchange.transmitter->status();
  didProgress(exchange.transmitter->begin(asksForHeadOnly(head.method())));
}

void ConnectionEngine::sendFixedAnswer(FixedAnswer answer, const VELError* error) {
  Exchange& exchange = *exchange_;
  exchange.phase = Exchange::Phase::kSending;
  exchange.status = statusOf(answer);
  if (connectionDebugLog().isOn()) {
    connectionDebugLog().line(debugTextOf(answer), exchange.request->description(),
                              error != nullptr ? ", " + error->description() : std::string());
  }
  if (mayLeaveInput(answer, std::as_const(*exchange.request).head())) socket_->expectUnreadInput();
  writeFixedAnswer(answer, error, exchange.configuration->limits, socket_.get(), &exchange.sent);
}

void ConnectionEngine::socketDidWriteDataWithTag(VELSocket& /*socket*/, int64_t tag) {
  if (!exchange_ || exchange_->phase != Exchange::Phase::kSending) return;
  if (tag == kLastTag) {
    finishAnswer();
  } else if (tag == kLastAndCloseTag) {
    finishAnswerAndClose();
  } else if (exchange_->transmitter) {
    didProgress(exchange_->transmitter->didWrite(tag));
  }
}

void ConnectionEngine::didProgress(Progress progress) {
  if (progress == Progress::kFinished) {
    finishAnswer();
  } else if (progress == Progress::kStranded) {
    strand();
  }
}

void ConnectionEngine::finishAnswer() {
  tellResponseThatItIsDone();
  if (exchange_->report) reportFinished(server_.lock(), *exchange_);
  if (shouldDie()) {
    // The file of a body stays behind: only the next request of a connection removes it.
    exchange_.reset();
    socket_->disconnectAfterWriting();
    return;
  }
  if (exchange_->body) exchange_->body->store().discard();
  const double keep_alive_interval = exchange_->configuration->keep_alive_interval;
  exchange_.reset();
  startReadingNextRequest(keep_alive_interval);
}

void ConnectionEngine::finishAnswerAndClose() {
  tellResponseThatItIsDone();
  if (exchange_->report) reportFinished(server_.lock(), *exchange_);
  exchange_.reset();
  socket_->disconnectAfterWriting();
}

// Once: also when it throws.
void ConnectionEngine::tellResponseThatItIsDone() {
  const std::shared_ptr<VELResponse> response = std::move(exchange_->response);
  if (response) response->connectionDidClose();
}

bool ConnectionEngine::shouldDie() const {
  const MessageHead& head = std::as_const(*exchange_->request).head();
  return closes_after_answer_ || !keepsAlive(head.version(), head.field(KnownField::kConnection));
}

}  // namespace vel
