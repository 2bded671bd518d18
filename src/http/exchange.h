// Exchange: one request and its answer, from the first line of the head to the last write. An idle
// connection has none.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>

#include "corvane/response.h"
#include "corvane/route.h"
#include "corvane/socket.h"
#include "http/configuration_snapshot.h"
#include "http/head_reader.h"
#include "http/request_access.h"
#include "http/request_body.h"
#include "http/transmitter.h"
#include "platform/recycled.h"

namespace vel {

/// What a host that asked for summaries is told beside what the exchange knows anyway.
struct ReportFacts {
  std::chrono::steady_clock::time_point began;
  VELSocketAddress peer;
};

/// The state of one request and its answer.
///
/// | phase      | event                           | next                                   |
/// | ---------- | ------------------------------- | -------------------------------------- |
/// | head       | the head is complete            | body, or evaluating when there is none |
/// | body       | the body is complete            | evaluating                             |
/// | evaluating | the answer has come             | sending                                |
/// | sending    | the last write, or no more data | (the exchange ends)                    |
/// | sending    | no more data within a range     | abandoned: until the client goes       |
/// | any        | a fixed answer                  | sending                                |
/// | evaluating | the route drops its handler     | abandoned: until the client goes       |
/// | any        | an exception                    | abandoned: an answer comes too late    |
/// | any        | the socket has closed           | (the exchange ends)                    |
///
/// Owner:   the connection's engine.
/// Queue:   the connection's.
struct Exchange {
  enum class Phase : uint8_t { kHead, kBody, kEvaluating, kSending, kAbandoned };

  Exchange() {}  // NOLINT(modernize-use-equals-default): leaves the transmitter's bytes unset.

  static void* operator new(size_t) { return RecycledPlace<Exchange>::take(); }
  static void operator delete(void* place) noexcept { RecycledPlace<Exchange>::giveBack(place); }

  Phase phase = Phase::kHead;
  // What was in force when the first line came; held by `own_configuration` unless the connection
  // itself holds it.
  const ConfigurationSnapshot* configuration = nullptr;
  std::shared_ptr<const ConfigurationSnapshot> own_configuration;

  std::shared_ptr<ReceivedRequest> request;
  HeadReader head_reader;
  // None for a request without a body.
  std::unique_ptr<RequestBody> body;
  // Held by the configuration.
  VELRoute* route = nullptr;
  // Middlewares of the configuration, counted from the first, that see the answer.
  size_t middlewares_asked = 0;

  // What the route wants called when the client goes before there is an answer; none for most routes.
  std::unique_ptr<const std::function<void()>> client_left;
  // None while there is no answer, and for fixed answers.
  std::shared_ptr<VELResponse> response;
  std::optional<Transmitter> transmitter;
  // 0 while there is no answer.
  uint64_t status = 0;
  SentBytes sent;

  // None unless summaries are asked for.
  std::unique_ptr<ReportFacts> report;
};

}  // namespace vel
