#include "http/request_report.h"

#include <functional>
#include <utility>

namespace vel {

std::unique_ptr<ReportFacts> reportFactsFor(const std::shared_ptr<VELServer>& server,
                                            const VELSocket& socket) {
  if (!server || !server->hasRequestFinishedHandler()) return nullptr;
  return std::make_unique<ReportFacts>(
      ReportFacts{std::chrono::steady_clock::now(), socket.peerAddress()});
}

void reportFinished(const std::shared_ptr<VELServer>& server, Exchange& exchange) {
  const std::unique_ptr<ReportFacts> facts = std::move(exchange.report);
  if (!facts || !server) return;
  const auto handler = server->requestFinishedHandler();
  if (!handler || !*handler) return;
  const MessageHead& head = std::as_const(*exchange.request).head();
  const VELRequestSummary summary{
      .request = head.isComplete() ? exchange.request : nullptr,
      .method = head.method(),
      .target = head.target().text,
      .version = head.version(),
      .peerAddress = facts->peer,
      .status = exchange.status,
      .bytesSent = exchange.sent.all,
      .bodyBytesSent = exchange.sent.body,
      .duration = std::chrono::steady_clock::now() - facts->began,
  };
  (*handler)(summary);
}

}  // namespace vel
