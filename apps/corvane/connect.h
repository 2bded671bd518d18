// The command connect: a WebSocket from a shell.
#pragma once

#include "options.h"

/// Sends lines and prints messages until either end closes. The first SIGINT or SIGTERM closes in good
/// order, a second one kills.
/// Shape:   the exit code of the program.
int connect(const ConnectOptions& options);
