// VELWebSocketFactory: opens WebSockets as a client, up to the session.
#pragma once

#include <cstddef>
#include <memory>
#include <mutex>
#include <unordered_set>

#include "corvane/progress.h"
#include "corvane/serial_queue.h"
#include "corvane/url_request.h"
#include "corvane/web_socket.h"

namespace vel {
/// The longest head that an answer may have, its empty line included; a longer one disconnects.
inline constexpr size_t kLongestUpgradeAnswer = 65'536;

class PendingOpen;
}  // namespace vel

/// Owner:   one for the process. It holds the opens whose answer has not been read yet.
/// Queue:   any.
class VELWebSocketFactory {
 public:
  static VELWebSocketFactory& sharedFactory();

  /// Connects, sends the request and reads the answer, all of it on `delegateQueue`.
  std::shared_ptr<VELProgress> openWebSocketWithRequest(
      const VELURLRequest& request, std::shared_ptr<VELSerialQueue> delegateQueue,
      VELWebSocket::CompletionHandler completionHandler);

  void add(const std::shared_ptr<vel::PendingOpen>& open);
  void remove(const std::shared_ptr<vel::PendingOpen>& open);

 private:
  std::mutex mutex_;
  // Guarded by mutex_, which is held around one change only.
  std::unordered_set<std::shared_ptr<vel::PendingOpen>> opens_;
};
