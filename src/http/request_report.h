// What a host that asked for it is told about a finished request.
#pragma once

#include <memory>

#include "corvane/server.h"
#include "corvane/socket.h"
#include "http/exchange.h"

namespace vel {

/// What has to be noted when the first line of a head comes, if `server` wants summaries; else
/// none.
std::unique_ptr<ReportFacts> reportFactsFor(const std::shared_ptr<VELServer>& server,
                                            const VELSocket& socket);

/// Tells the host of `server` about `exchange`, once: at the end of the answer, or when the
/// connection has died after the request was complete. There may be no answer then, and the status
/// is 0; bytes are those handed to the socket so far.
void reportFinished(const std::shared_ptr<VELServer>& server, Exchange& exchange);

}  // namespace vel
