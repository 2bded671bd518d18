// Lines on standard error.
#pragma once

#include <string>

/// Writes `line`, to which a line end is added, so that lines of several threads never mix.
/// Errors:  a line that cannot be written is lost.
void writeLineToStandardError(std::string line);
