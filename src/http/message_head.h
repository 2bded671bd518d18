// MessageHead: the head of an HTTP/1.x message in one block of bytes, with its fields as places in it.
// It keeps and finds; the grammar of a line stands in head_parser.h, what goes on the wire in
// head_serialiser.h.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "corvane/dictionary.h"
#include "http/inline_vector.h"
#include "http/known_field.h"
#include "platform/request_target.h"

namespace vel {

/// What a head makes of a further line.
enum class HeadProgress : uint8_t { kNeedsMore, kComplete, kMalformed };

/// The versions that a server tells apart.
enum class HTTPVersion : uint8_t { kNone, k1_0, k1_1, kOther };

/// A message head: parsed line by line, or built. Views that it gives point into it and are valid until
/// it is changed, moved or gone.
///
///   MessageHead head;
///   while (head.progress() == HeadProgress::kNeedsMore) head.appendLine(nextLine());
///   if (head.isMethod("HEAD")) ...
///   std::optional<std::string_view> length = head.field(KnownField::kContentLength);
///
/// Owner:   a value, cheap to make on the stack; `clear` keeps the block for the next head.
/// Queue:   one thread at a time; reading is safe from several.
class MessageHead {
 public:
  struct Field {
    std::string_view name;
    std::string_view value;
  };

  MessageHead() noexcept {}  // NOLINT(modernize-use-equals-default): leaves the bytes unset.
  MessageHead(const MessageHead& other);
  MessageHead(MessageHead&& other) noexcept;
  MessageHead& operator=(const MessageHead& other);
  MessageHead& operator=(MessageHead&& other) noexcept;
  ~MessageHead() = default;

  /// Makes room for a head of `bytes`, so that the block is allocated once.
  void reserve(size_t bytes);
  /// Back to a head without a start line. The block stays.
  void clear() noexcept;

  /// Parses one line, with or without its line end. The line is copied once and parsed where it then
  /// stands. An empty line before the start line is ignored (RFC 9112 §2.2). Once the head is complete
  /// or malformed it stays so.
  /// A folded line (RFC 9112 §5.2) is joined to the one before it in a response, and malformed in a
  /// request. So are "Content-Length" fields that differ, when the head ends.
  HeadProgress appendLine(std::string_view line);

  /// A request line that is built, in place of everything that the head held. What a start line cannot
  /// hold becomes blanks. A built head is complete.
  void setRequest(std::string_view method, std::string_view target, std::string_view version);
  /// The same for a status line; no description stands for the standard reason phrase.
  void setResponse(int64_t status, std::optional<std::string_view> description,
                   std::string_view version);

  HeadProgress progress() const noexcept { return facts_.progress; }
  bool isComplete() const noexcept { return facts_.progress == HeadProgress::kComplete; }
  bool hasStartLine() const noexcept { return facts_.kind != Kind::kNone; }
  /// True also before the start line.
  bool isRequest() const noexcept { return facts_.kind != Kind::kResponse; }

  HTTPVersion versionKind() const noexcept { return facts_.version_kind; }
  std::string_view version() const noexcept { return view(facts_.version); }
  std::string_view method() const noexcept { return view(facts_.method); }
  /// Exact comparison, as methods are case-sensitive (RFC 9110 §9.1).
  bool isMethod(std::string_view name) const noexcept { return method() == name; }
  /// The parts of the request target; empty parts for a response.
  const RequestTarget& target() const noexcept { return facts_.target; }
  /// The decoded path, as routes see it; without an allocation when nothing needs decoding. It points
  /// into this head or into `scratch`.
  std::string_view path(std::string* scratch) const { return decodedPath(facts_.target, scratch); }
  /// 0 for a request.
  int64_t status() const noexcept { return facts_.status; }
  std::string_view reason() const noexcept { return view(facts_.reason); }

  /// The fields in their order, one for each line.
  size_t fieldCount() const noexcept { return facts_.field_count; }
  Field fieldAt(size_t index) const noexcept;
  /// The value of a field once the head is complete. Values of a field that came several times are
  /// joined (RFC 9110 §5.3), and equal lengths count once.
  std::optional<std::string_view> field(KnownField field) const noexcept {
    const size_t number = facts_.known[slotOf(field)];
    if (number == 0) return std::nullopt;
    return valueOf(entries_[number - 1]);
  }
  /// The value of any field, at any time. It points into this head or, when it had to be joined, into
  /// `scratch`.
  std::optional<std::string_view> field(std::string_view name, std::string* scratch) const;
  std::optional<std::string> valueForField(std::string_view name) const;
  /// Every field by name, without regard to case; the name is spelled as it first came.
  VELDictionary headers() const;

  /// Sets a field, replacing all of that name. Control characters of the value, CR, LF and NUL among
  /// them, become blanks; a name that is no token is left out and logged (RFC 9110 §5.5).
  void setField(std::string_view value, std::string_view name);

  /// The head as it was received, with CR LF as line ends; none for one that was built or changed, or is
  /// not complete.
  std::optional<std::string_view> receivedBytes() const noexcept;

 private:
  enum class Kind : uint8_t { kNone, kRequest, kResponse };

  struct Place {
    uint32_t offset = 0;
    uint32_t length = 0;
  };

  // 16 bytes; a name is at most 64 KiB long.
  struct Entry {
    uint32_t name;
    uint32_t value;
    uint32_t value_length;
    uint16_t name_length;
    KnownField known;
  };

  // Everything but the bytes and the fields, so that it is cleared and copied as a whole.
  struct Facts {
    Kind kind = Kind::kNone;
    HeadProgress progress = HeadProgress::kNeedsMore;
    HTTPVersion version_kind = HTTPVersion::kNone;
    bool is_changed = false;
    uint16_t repeated = 0;  // One bit for each known field that came again.
    uint32_t field_count = 0;
    uint32_t head_length = 0;  // Bytes of the complete head; what follows in the block was made.
    int64_t status = 0;
    Place method;
    Place version;
    Place reason;
    // Number plus one of the entry of each known field; 0 for none.
    std::array<uint16_t, kKnownFieldCount> known{};
    RequestTarget target;
  };

  static constexpr size_t kInlineFields = 16;
  static constexpr size_t kSmallBlock = 160;

  static size_t slotOf(KnownField field) noexcept { return static_cast<size_t>(field); }

  std::string_view view(Place place) const noexcept {
    return {block_ + place.offset, place.length};
  }
  std::string_view nameOf(const Entry& entry) const noexcept {
    return {block_ + entry.name, entry.name_length};
  }
  std::string_view valueOf(const Entry& entry) const noexcept {
    return {block_ + entry.value, entry.value_length};
  }
  Place placeOf(std::string_view part) const noexcept {
    return {static_cast<uint32_t>(part.data() - block_), static_cast<uint32_t>(part.size())};
  }
  void moveTarget(const char* from) noexcept;

  void copyFrom(const MessageHead& other);
  void takeFrom(MessageHead& other) noexcept;

  char* extend(size_t bytes);
  void grow(size_t capacity);
  Place append(std::string_view text);

  bool keepLine(std::string_view line, std::string_view* kept);
  bool appendField(std::string_view line);
  bool appendStartLine(std::string_view line);
  bool appendFoldedLine(std::string_view line);
  HeadProgress appendEmptyLine();
  bool parseRequest(std::string_view line);
  bool parseStatus(std::string_view line);

  /// Counts `entry`, which is about to be added, and indexes it if it is a known field.
  void note(const Entry& entry) noexcept {
    ++facts_.field_count;
    if (entry.known != KnownField::kNone) noteKnown(entry.known);
  }
  void noteKnown(KnownField field) noexcept;
  void removeFields(std::string_view name, size_t from);
  void rebuildIndex();
  void joinRepeatedFields();
  bool settleContentLength();
  void setJoined(KnownField field, const Entry& first, Place value);
  size_t find(std::string_view name, size_t from) const noexcept;
  void joinInto(size_t first, std::string* out) const;

  // The bytes: in place while the head is small, as those of programs are, else on the heap.
  char* block_ = small_block_;
  uint32_t size_ = 0;
  uint32_t capacity_ = kSmallBlock;
  std::unique_ptr<char[]> large_block_;
  Facts facts_;
  // The fields, then an entry for each known field whose value is not the text of one line.
  InlineVector<Entry, kInlineFields> entries_;
  char small_block_[kSmallBlock];
};

}  // namespace vel
