// Percent-encoding (RFC 3986 §2.1): the decoders and the encoder that URLs, queries and forms share.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace vel {

/// What becomes of an escape that is not "%" and two hexadecimal digits.
enum class MalformedEscape : bool { kFails, kStaysLiteral };

/// What becomes of "+".
enum class PlusSign : bool { kStays, kIsBlank };

/// Appends `text`, decoded, to `out`. False, with `out` half-written, when an escape is malformed and
/// that fails.
bool appendPercentDecoded(std::string_view text, MalformedEscape malformed, PlusSign plus,
                          std::string* out);

/// `text` decoded; none when an escape is malformed or what the escapes spell is not UTF-8.
std::optional<std::string> percentDecodedText(std::string_view text, PlusSign plus);

/// Appends `query`, whose escapes stay, with every other byte escaped that a query cannot hold as it is
/// (RFC 3986 §3.4).
void appendPercentEncodedQuery(std::string_view query, std::string* out);

/// Appends `path` with every byte escaped that a path cannot hold as it is (RFC 3986 §3.3).
void appendPercentEncodedPath(std::string_view path, std::string* out);

}  // namespace vel
