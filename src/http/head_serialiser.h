// Message heads on the wire: start line, fields, empty line (RFC 9112 §2.1). ResponseHeadBuilder is for
// answers, which are made of texts that live elsewhere; a MessageHead is written as it stands.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "corvane/data.h"
#include "corvane/response.h"
#include "http/inline_vector.h"

namespace vel {

class MessageHead;

/// The head as it goes on the wire: as received when it was received and not changed.
std::string serialised(const MessageHead& head);

/// The head of one answer of the server, which always speaks HTTP/1.1. Nothing is copied before the
/// head is written: names, values and the description have to live until then.
///
///   ResponseHeadBuilder head(200);
///   head.setContentLength(13);
///   head.setOwnField("Date", httpDateNow());
///   head.setOwnField("Accept-Ranges", "bytes");
///   head.setFields(response.headerFields());
///   head.appendTo(&buffer);
///
/// A field of a host's replaces one of the same name in any letter case, in its place in the order.
class ResponseHeadBuilder {
 public:
  /// Default: no description stands for the standard reason phrase.
  explicit ResponseHeadBuilder(uint64_t status,
                               std::optional<std::string_view> description = std::nullopt) noexcept;
  ResponseHeadBuilder(const ResponseHeadBuilder&) = delete;
  ResponseHeadBuilder& operator=(const ResponseHeadBuilder&) = delete;

  /// Sets "Content-Length" to `length` in decimal.
  void setContentLength(uint64_t length);
  /// Adds a field of the library's own. They come first, and each name once.
  void setOwnField(std::string_view name, std::string_view value);
  /// Sets a field of a host's. Control characters of the value become blanks; a name that is no token is
  /// left out and logged.
  void setField(std::string_view name, std::string_view value);
  void setFields(std::span<const VELHeaderField> fields);

  /// The value as it stands so far.
  std::optional<std::string_view> field(std::string_view name) const noexcept;

  /// Bytes of the whole head.
  size_t size() const noexcept;
  /// Writes `size()` bytes to `out`; the place after them.
  char* writeTo(char* out) const noexcept;
  void appendTo(std::string* out) const;
  VELData data() const;

 private:
  struct Field {
    std::string_view name;
    std::string_view value;
    // A text of the library's own, which holds no control character.
    bool is_clean;
  };
  static constexpr size_t kInlineFields = 16;

  void addField(const Field& field);

  uint64_t status_;
  std::string_view description_;
  bool has_clean_description_;
  InlineVector<Field, kInlineFields> fields_;
  size_t field_bytes_ = 0;
  std::array<char, 20> length_digits_;
};

}  // namespace vel
