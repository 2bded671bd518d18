// VELProxyRoute: has requests answered by another server.
#pragma once

#include <memory>
#include <mutex>
#include <optional>
#include <vector>

#include "corvane/data.h"
#include "corvane/dictionary.h"
#include "corvane/error.h"
#include "corvane/export.h"
#include "corvane/progress.h"
#include "corvane/response.h"
#include "corvane/route.h"
#include "corvane/url.h"
#include "corvane/url_request.h"
#include "corvane/url_response.h"

class VELProxyRoute;

namespace vel {
class ClientSession;
struct TransferResult;
}  // namespace vel

/// Key of the user info of a transfer's progress: the `std::shared_ptr<VELRequest>` that it serves.
inline constexpr char VELProxyRouteRequest[] = "VELProxyRouteRequest";

/// Reviews what a proxy route sends and answers.
///
/// ```cpp
/// struct Signed : VELProxyRouteDelegate {
///   void proxyRouteWillPerformProxyURLRequest(VELProxyRoute&, VELURLRequest& proxyURLRequest,
///                                             std::shared_ptr<VELRequest>) override {
///     proxyURLRequest.setValueForHTTPHeaderField("Bearer 42", "Authorization");
///   }
/// };
/// ```
class CORVANE_EXPORT VELProxyRouteDelegate {
 public:
  virtual ~VELProxyRouteDelegate();

  /// Just before the transfer starts; `proxyURLRequest` may be changed in place.
  /// Default: changes nothing.
  /// Queue:   the connection's, those of several at once.
  virtual void proxyRouteWillPerformProxyURLRequest(VELProxyRoute& proxyRoute,
                                                    VELURLRequest& proxyURLRequest,
                                                    std::shared_ptr<VELRequest> request);
  /// Decides the answer when the transfer has ended: calls `completionHandler` once, now or later, with the
  /// suggestion, another response, or an error.
  /// Shape:   `proxyResponse`, `data` and `suggestedResponse` are none, and `error` is set, when no whole
  ///          answer came.
  /// Default: answers with the suggestion and the error.
  /// Queue:   one of the call's own, so it may block; the handler may be called on any.
  virtual void proxyRouteDecideResponseForRequest(
      VELProxyRoute& proxyRoute, std::shared_ptr<VELRequest> request,
      std::shared_ptr<const VELURLResponse> proxyResponse, std::optional<VELData> data,
      std::optional<VELError> error, std::shared_ptr<VELResponse> suggestedResponse,
      VELResponseHandler completionHandler);
};

/// Forwards requests to an upstream server, and its answers, with their status, body and content type.
///
/// ```cpp
/// auto route = std::make_shared<VELProxyRoute>("/api", false);
/// route->setURL(VELURL::URLWithString("http://localhost:9000/v1"));
/// route->setAllowedHTTPMethods({"HEAD", "GET", "POST"});
/// VELDictionary headers{{"X-Forwarded-Proto", "https"}, {"Cookie", ""}};
/// route->setHeaders(headers);
/// ```
/// | request                                | upstream                                               |
/// |----------------------------------------|--------------------------------------------------------|
/// | the path behind the route's match      | joined to the path of `URL`, encoded anew              |
/// | a path that climbs above that of `URL` | none: 404                                              |
/// | query                                  | the same                                               |
/// | body in memory or in a file            | the same, with a "Content-Length" of its own           |
/// | header fields                          | the same, with "Host" and "Connection: close" replaced, then `headers` |
///
/// | upstream                               | answer                                                 |
/// |----------------------------------------|--------------------------------------------------------|
/// | an HTTP answer, whatever its status    | its status, body (decoded) and "Content-Type", no other field |
/// | something that is no HTTP              | 502                                                    |
/// | no whole answer                        | an error, which the connection answers with 500        |
///
/// A part that the upstream answers with to a "Range" field comes without its "Content-Range", and the connection
/// takes its range out of that part again: where clients ask for ranges, have `headers` remove "Range".
/// "Authorization" goes along as well unless `headers` remove it.
/// Redirects are followed, within http and https. The body of an answer is held in memory. A server that says
/// nothing for 60 seconds (`VELURLRequest::timeoutInterval`), and a client that closes its connection, or only its
/// sending direction, end the transfer.
/// Owner:   shared by the configuration and all connections. Transfers hold the request, the delegate and the
///          response handler until they have ended, and not the route: when it goes, they are cancelled.
/// Queue:   accessors: any. Transfers run on a queue of the route's own.
class CORVANE_EXPORT VELProxyRoute : public VELRoute {
 public:
  using VELRoute::VELRoute;
  /// Cancels the transfers that are under way: they end with `kVELURLErrorCancelled`.
  ~VELProxyRoute() override;

  void evaluateWithRequest(std::shared_ptr<VELRequest> request,
                           VELResponseHandler responseHandler) override;

  /// The upstream base: http or https, host, port and the path that all others begin with.
  /// Default: none, and every request is answered with 404.
  std::optional<VELURL> URL() const;
  void setURL(std::optional<VELURL> URL);
  /// Fields that every upstream request gets, whatever the client sent; an empty value removes the field.
  /// Default: none.
  VELDictionary headers() const;
  void setHeaders(VELDictionary headers);
  /// Default: none.
  std::shared_ptr<VELProxyRouteDelegate> delegate() const;
  void setDelegate(std::weak_ptr<VELProxyRouteDelegate> delegate);

  /// What stands for the transfers that are under way: each names its request under `VELProxyRouteRequest`, and
  /// cancels its transfer.
  std::vector<std::shared_ptr<VELProgress>> transfers() const;

 private:
  static std::shared_ptr<vel::ClientSession> makeSession();
  std::shared_ptr<vel::ClientSession> session();
  VELURLRequest upstreamRequest(const VELRequest& request, VELURL location) const;

  mutable std::mutex mutex_;
  // Guarded by mutex_.
  std::shared_ptr<vel::ClientSession> session_ = makeSession();
  std::optional<VELURL> url_;
  VELDictionary headers_;
  std::weak_ptr<VELProxyRouteDelegate> delegate_;
};
