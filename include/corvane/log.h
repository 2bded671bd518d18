// Where the library's log lines go, and whether debug lines are among them.
#pragma once

#include <functional>
#include <optional>
#include <string_view>

#include "corvane/export.h"

/// Takes one line of text, without a line end. What a client sent may be part of it; control
/// characters have been replaced by escapes such as \x0A.
/// Owner:   the text is valid during the call only.
/// Errors:  an exception is swallowed.
/// Queue:   any thread, several at once.
using VELLogSink = std::function<void(std::string_view line)>;

/// Sends every further log line to `sink`; an empty function restores the default. A line that
/// another thread is logging just now may still reach the sink that was replaced.
/// Default: standard error when it is a terminal or the journal's stream, else the system log
///          (`syslog`).
CORVANE_EXPORT void VELSetLogSink(VELLogSink sink);

/// Sets the boolean default "DebugLogging"; without a value the environment decides again.
/// The server and the connections each read it once, when they first have something to log: set it
/// before the first server starts.
/// Default: the environment variable `DebugLogging`, else `CORVANE_DEBUG_LOGGING`: true for 1, true or
///          yes in any letter case.
CORVANE_EXPORT void VELSetDebugLogging(std::optional<bool> isOn);
