// ClientSession: requests to other servers, any number at once, on one serial queue. The protocol is
// libcurl's; its sockets and times are the event loop's.
#pragma once

#include <curl/curl.h>

#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_set>
#include <vector>

#include "corvane/progress.h"
#include "corvane/serial_queue.h"
#include "corvane/url_request.h"
#include "platform/deadline.h"
#include "platform/foreign_sockets.h"
#include "platform/transfer.h"

namespace vel {

/// Owner:   whoever makes requests, who calls `invalidateAndCancel` in the end; transfers hold it weakly.
/// Queue:   one of its own, on the loop that the first request comes from.
class ClientSession final : public ForeignSockets::Observer,
                            private Deadline,
                            public std::enable_shared_from_this<ClientSession> {
 public:
  ClientSession();
  ~ClientSession() override;
  ClientSession(const ClientSession&) = delete;
  ClientSession& operator=(const ClientSession&) = delete;

  /// Begins a transfer and returns. `progress` stands for it: cancelling that ends it with
  /// `kVELURLErrorCancelled`.
  /// Queue:   any.
  void start(VELURLRequest request, std::shared_ptr<VELProgress> progress,
             TransferCompletion completion);
  /// Cancels every transfer; later ones are cancelled at once.
  /// Queue:   any.
  void invalidateAndCancel();
  /// The loop of the session has stopped: nothing will happen on it any more.
  /// Queue:   any.
  bool hasStopped() const;
  /// What stands for the transfers under way.
  /// Queue:   any.
  std::vector<std::shared_ptr<VELProgress>> transfers() const;

  // For its transfers, on the queue.
  void fail(Transfer& transfer, VELError error);
  /// Nobody runs the queue any more, not even to cancel: every transfer ends here and now.
  void loopDidStop() noexcept { cancelAll(); }

 private:
  // A name that is being looked up, or was a short while ago.
  struct Host {
    // Looks it up, for whoever waits; none while nobody does.
    CurlHandle look_up;
    MonotonicTime known_until = 0;
    std::vector<std::shared_ptr<Transfer>> waiting;
  };

  const std::shared_ptr<VELSerialQueue>& queueForUse();
  bool open();
  void begin(const std::shared_ptr<Transfer>& transfer);
  void admit(const std::shared_ptr<Transfer>& transfer);
  bool waitsForHost(const std::shared_ptr<Transfer>& transfer);
  bool beginLookUp(const VELURL& location, Host* host);
  void didLookUp(CURL* look_up, CURLcode code);
  void perform(const std::shared_ptr<Transfer>& transfer);
  void dismiss(Transfer& transfer);
  void end(const std::shared_ptr<Transfer>& transfer, TransferResult result);
  void cancelAll();
  void act(curl_socket_t socket, int events);
  void takeFinished();
  void didFinish(const std::shared_ptr<Transfer>& transfer, CURLcode code);

  void socketIsReady(int fd, uint32_t readiness) override;
  void socketsWereServed() override;
  void deadlineDidFire() override;
  std::shared_ptr<void> deadlineOwner() override { return weak_from_this().lock(); }

  static int socketDidChange(CURL*, curl_socket_t socket, int what, void* session, void*);
  static int timerDidChange(CURLM*, long milliseconds, void* session);

  mutable std::mutex mutex_;
  // Guarded by mutex_; `queue_` is set once.
  std::shared_ptr<VELSerialQueue> queue_;
  bool is_invalid_ = false;
  std::unordered_set<std::shared_ptr<Transfer>> transfers_;  // changed on the queue

  // Touched on the queue only.
  CURLM* multi_ = nullptr;
  std::shared_ptr<ForeignSockets> sockets_;
  std::map<std::string, Host, std::less<>> hosts_;
  std::vector<CurlHandle> spare_handles_;
  bool timer_is_due_ = false;
};

}  // namespace vel
