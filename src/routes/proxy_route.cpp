// VELProxyRoute: which request goes upstream, and what is made of the answer. Transfers are the client
// session's.
#include "corvane/proxy_route.h"

#include <utility>

#include "corvane/responses.h"
#include "platform/client_session.h"
#include "platform/log.h"
#include "platform/queue_runner.h"
#include "platform/redirect.h"
#include "routes/matched_path.h"
#include "routes/upstream_location.h"

namespace {

constexpr char kDelegateQueueLabel[] = "org.corvane.ProxyRouteDelegate";

std::shared_ptr<VELResponse> suggestionFor(const vel::TransferResult& result) {
  if (!result.response) return nullptr;
  if (const auto* answer = dynamic_cast<const VELHTTPURLResponse*>(result.response.get())) {
    return VELResponse::responseWithData(result.data.value_or(VELData()), answer->statusCode(),
                                         answer->valueForHTTPHeaderField("Content-Type"));
  }
  auto response = std::make_shared<VELResponse>();
  response->setStatus(502);
  return response;
}

void logFailure(const VELURL& location, const VELError& error) {
  if (error.code() == kVELURLErrorCancelled) return;
  std::string line = "Proxying to " + vel::hostFieldOf(location) + " failed: ";
  line += error.localizedDescription();
  const auto detail = error.userInfo().find(VELErrorDetailKey);
  if (detail != error.userInfo().end()) line += " (" + detail->second + ")";
  vel::logLine(line);
}

}  // namespace

VELProxyRouteDelegate::~VELProxyRouteDelegate() = default;

void VELProxyRouteDelegate::proxyRouteWillPerformProxyURLRequest(
    VELProxyRoute& /*proxyRoute*/, VELURLRequest& /*proxyURLRequest*/,
    std::shared_ptr<VELRequest> /*request*/) {}

void VELProxyRouteDelegate::proxyRouteDecideResponseForRequest(
    VELProxyRoute& /*proxyRoute*/, std::shared_ptr<VELRequest> /*request*/,
    std::shared_ptr<const VELURLResponse> /*proxyResponse*/, std::optional<VELData> /*data*/,
    std::optional<VELError> error, std::shared_ptr<VELResponse> suggestedResponse,
    VELResponseHandler completionHandler) {
  completionHandler(std::move(suggestedResponse), std::move(error));
}

std::shared_ptr<vel::ClientSession> VELProxyRoute::makeSession() {
  return std::make_shared<vel::ClientSession>();
}

VELProxyRoute::~VELProxyRoute() { session_->invalidateAndCancel(); }

std::optional<VELURL> VELProxyRoute::URL() const {
  std::lock_guard lock(mutex_);
  return url_;
}

void VELProxyRoute::setURL(std::optional<VELURL> URL) {
  std::lock_guard lock(mutex_);
  url_.swap(URL);
}

VELDictionary VELProxyRoute::headers() const {
  std::lock_guard lock(mutex_);
  return headers_;
}

void VELProxyRoute::setHeaders(VELDictionary headers) {
  std::lock_guard lock(mutex_);
  headers_.swap(headers);
}

std::shared_ptr<VELProxyRouteDelegate> VELProxyRoute::delegate() const {
  std::lock_guard lock(mutex_);
  return delegate_.lock();
}

void VELProxyRoute::setDelegate(std::weak_ptr<VELProxyRouteDelegate> delegate) {
  std::lock_guard lock(mutex_);
  delegate_.swap(delegate);
}

std::vector<std::shared_ptr<VELProgress>> VELProxyRoute::transfers() const {
  std::lock_guard lock(mutex_);
  return session_->transfers();
}

// A host may stop the loops of one server and give the route to another.
std::shared_ptr<vel::ClientSession> VELProxyRoute::session() {
  std::lock_guard lock(mutex_);
  if (session_->hasStopped()) session_ = makeSession();
  return session_;
}

VELURLRequest VELProxyRoute::upstreamRequest(const VELRequest& request, VELURL location) const {
  VELURLRequest upstream(std::move(location));
  upstream.setMethod(request.method());
  if (const auto file = request.bodyFileURL()) {
    upstream.setBodyStream(VELInputStream::inputStreamWithFileAtPath(file->filePath()));
  } else {
    upstream.setBody(request.bodyData());
  }
  upstream.setAllHTTPHeaderFields(request.headers());
  upstream.setValueForHTTPHeaderField(vel::hostFieldOf(upstream.URL()), "Host");
  upstream.setValueForHTTPHeaderField("close", "Connection");
  for (const auto& [field, value] : headers()) {
    upstream.setValueForHTTPHeaderField(
        value.empty() ? std::nullopt : std::optional<std::string_view>(value), field);
  }
  return upstream;
}

namespace {

// Evaluates one request: what has to be at hand when the transfer ends.
struct Evaluation {
  std::weak_ptr<VELRoute> route;
  std::shared_ptr<VELProxyRouteDelegate> delegate;
  std::shared_ptr<VELRequest> request;
  VELResponseHandler respond;
  VELURL location;

  void finish(vel::TransferResult result) const {
    if (result.error) logFailure(location, *result.error);
    std::shared_ptr<VELResponse> suggestion = suggestionFor(result);
    if (!delegate) return respond(std::move(suggestion), std::move(result.error));
    // A delegate may block. It must not hold up the other transfers of the session.
    const vel::QueueFrame* frame = vel::ThreadRecord::current().frame;
    const std::shared_ptr<VELSerialQueue> queue =
        vel::QueueRunner::makeQueue(kDelegateQueueLabel, vel::QueueRunner::loopOf(*frame->queue));
    queue->async([self = *this, result = std::move(result), suggestion = std::move(suggestion)] {
      const std::shared_ptr<VELRoute> held = self.route.lock();
      if (!held) return self.respond(suggestion, result.error);
      self.delegate->proxyRouteDecideResponseForRequest(static_cast<VELProxyRoute&>(*held),
                                                        self.request, result.response, result.data,
                                                        result.error, suggestion, self.respond);
    });
  }
};

}  // namespace

void VELProxyRoute::evaluateWithRequest(std::shared_ptr<VELRequest> request,
                                        VELResponseHandler responseHandler) {
  const std::optional<VELURL> base = URL();
  std::optional<VELURL> location;
  if (base) location = vel::upstreamLocation(*base, vel::pathBehindMatch(*request), request->URL());
  if (!location) return responseHandler(std::make_shared<VELNotFoundResponse>());
  const std::shared_ptr<VELProxyRouteDelegate> delegate = this->delegate();
  VELURLRequest upstream = upstreamRequest(*request, std::move(*location));
  if (delegate) delegate->proxyRouteWillPerformProxyURLRequest(*this, upstream, request);

  auto progress = VELProgress::discreteProgress(-1);
  progress->setUserInfoObjectForKey(request, VELProxyRouteRequest);
  responseHandler.whenClientLeaves([progress] { progress->cancel(); });
  const VELURL target = upstream.URL();
  Evaluation evaluation{weak_from_this(), delegate, std::move(request), std::move(responseHandler),
                        target};
  session()->start(std::move(upstream), std::move(progress),
                   [evaluation = std::move(evaluation)](vel::TransferResult result) {
                     evaluation.finish(std::move(result));
                   });
}
