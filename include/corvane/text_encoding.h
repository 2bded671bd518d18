// Codes of text encodings, as requests and responses carry them.
#pragma once

/// The codes are fixed numbers.
inline constexpr unsigned VELASCIIStringEncoding = 1;
inline constexpr unsigned VELUTF8StringEncoding = 4;
inline constexpr unsigned VELISOLatin1StringEncoding = 5;
/// UTF-16 with a byte order mark.
inline constexpr unsigned VELUTF16StringEncoding = 10;
