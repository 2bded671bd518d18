// SessionCall: one call of a session's on its way to the session's queue.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "corvane/data.h"
#include "platform/queue_node.h"

class VELWebSocket;

namespace vel {

/// What is asked of a session.
struct SessionRequest {
  enum class Kind : uint8_t {
    kSend,        // a frame with `opcode` and `data`
    kSendFramed,  // `data`, which are a frame
    kClose,       // with `code` and the reason `data`, if there is one
    kDisconnect,  // at once
    kReadOn,      // what came before the next frame has been done
  };
  Kind kind;
  VELData data;
  int64_t code = 0;
  uint8_t opcode = 0;
  bool hasReason = false;
};

/// Made for each request that is not carried out in place, in memory that is used again.
/// Owner:   the queue, until it has run. Holds the session.
class SessionCall final : public QueueNode {
 public:
  /// Posts `request` to the queue of `session`.
  static void post(VELWebSocket& session, SessionRequest request);

  void runNode(QueueFrame& frame) override;
  void dropNode() noexcept override;

 private:
  SessionCall(std::shared_ptr<VELWebSocket> session, SessionRequest&& request) noexcept;
  ~SessionCall() override = default;

  const std::shared_ptr<VELWebSocket> session_;
  SessionRequest request_;
};

}  // namespace vel
