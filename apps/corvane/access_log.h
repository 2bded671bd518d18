// Access lines in the combined log format.
#pragma once

#include <ctime>
#include <string>

#include "corvane/server.h"

/// The line for one finished request, without a line end: address, user, time, request line, status,
/// body bytes, referrer and user agent. What is missing is "-"; quotes, backslashes, control
/// characters and bytes beyond ASCII are escaped, so that no client can forge a line.
std::string accessLine(const VELRequestSummary& summary, std::time_t time);
