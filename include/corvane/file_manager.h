// Where the library keeps its temporary files.
#pragma once

#include "corvane/export.h"
#include "corvane/url.h"

/// The library's directory for temporary files: "org.corvane" in the system's temporary directory,
/// which is `TMPDIR` or else /tmp.
/// Shape:   a file URL; the directory is created on every call, readable by this user only.
/// Errors:  a directory that cannot be made is logged, and its URL is given all the same.
CORVANE_EXPORT VELURL vel_temporaryItemsURL();
