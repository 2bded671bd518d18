// The command serve: a server from its start to its end by a signal.
#pragma once

#include "options.h"

/// Blocks the signals that end the program, so that `serve` can wait for them. Call it before any
/// thread is started.
void blockEndingSignals();

/// Serves until SIGINT or SIGTERM comes.
/// Shape:   the exit code of the program.
int serve(const ServeOptions& options);
