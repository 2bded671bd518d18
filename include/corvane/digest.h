// Digests of bytes and files.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "corvane/error.h"
#include "corvane/export.h"

/// The SHA-256 digest of `bytes`.
/// Shape:   64 lower-case hexadecimal digits.
CORVANE_EXPORT std::string VELSHA256Digest(std::string_view bytes);

/// The SHA-256 digest of the file at `path`, which is read piece by piece.
/// Shape:   64 lower-case hexadecimal digits.
/// Errors:  none when the file cannot be read, with an error of `VELPOSIXErrorDomain`.
/// Queue:   any; it blocks on the file.
CORVANE_EXPORT std::optional<std::string> VELSHA256DigestOfFile(const std::string& path,
                                                                VELError* error = nullptr);
