// The grammar of a message head (RFC 9112 §2 to §5), one line at a time: pure functions whose results are
// views into the line. Every line comes without its line end, and is known to hold no control
// character but the tab (`isFieldText`). They are inline because every line of every request goes
// through them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "http/field_text.h"
#include "platform/ascii.h"

namespace vel {

/// The parts of "GET /path HTTP/1.1".
struct RequestLine {
  std::string_view method;
  std::string_view target;
  std::string_view version;
};

/// The parts of "HTTP/1.1 200 OK".
struct StatusLine {
  std::string_view version;
  uint16_t status = 0;
  std::string_view reason;
};

/// The parts of "Name: value", the value without the white space around it.
struct FieldLine {
  std::string_view name;
  std::string_view value;
};

inline constexpr size_t kHTTPVersionLength = std::string_view("HTTP/1.1").size();

/// True for "HTTP/" and two digits with a dot between them, whatever the digits (RFC 9112 §2.3).
inline bool isHTTPVersion(std::string_view text) noexcept {
  return text.size() == kHTTPVersionLength && text.substr(0, 5) == "HTTP/" && isDigit(text[5]) &&
         text[6] == '.' && isDigit(text[7]);
}

/// Single spaces separate the parts; the target is only cut out, not looked into. False for anything
/// else: a server that guesses where a part ends can be made to see another request than the proxy
/// before it (RFC 9112 §3).
inline bool parseRequestLine(std::string_view line, RequestLine* out) noexcept {
  const size_t method = tokenLength(line);
  if (method == 0 || line.size() < method + 2 + kHTTPVersionLength) return false;
  const size_t version = line.size() - kHTTPVersionLength;
  if (line[method] != ' ' || line[version - 1] != ' ') return false;
  out->method = line.substr(0, method);
  out->target = line.substr(method + 1, version - method - 2);
  out->version = line.substr(version);
  return isHTTPVersion(out->version);
}

/// The space after the code may be missing when there is no reason (RFC 9112 §4).
inline bool parseStatusLine(std::string_view line, StatusLine* out) noexcept {
  constexpr size_t kCode = kHTTPVersionLength + 1;
  constexpr size_t kCodeEnd = kCode + 3;
  if (line.size() < kCodeEnd || !isHTTPVersion(line.substr(0, kHTTPVersionLength))) return false;
  if (line[kCode - 1] != ' ' || (line.size() > kCodeEnd && line[kCodeEnd] != ' ')) return false;
  int status = 0;
  for (const char digit : line.substr(kCode, 3)) {
    if (!isDigit(digit)) return false;
    status = status * 10 + (digit - '0');
  }
  out->version = line.substr(0, kHTTPVersionLength);
  out->status = static_cast<uint16_t>(status);
  out->reason = line.substr(line.size() > kCodeEnd ? kCodeEnd + 1 : kCodeEnd);
  return true;
}

/// False for an empty name, one that is no token, and for white space before the colon
/// (RFC 9112 §5.1).
inline bool parseFieldLine(std::string_view line, FieldLine* out) noexcept {
  const size_t name = tokenLength(line);
  if (name == 0 || name == line.size() || line[name] != ':') return false;
  size_t begin = name + 1;
  size_t end = line.size();
  if (begin < end && line[begin] == ' ') ++begin;
  while (begin < end && isBlank(line[begin])) ++begin;
  while (end > begin && isBlank(line[end - 1])) --end;
  out->name = {line.data(), name};
  out->value = {line.data() + begin, end - begin};
  return true;
}

/// True when every member of a list of "Content-Length" values, "5, 5" for instance, has the same text,
/// which then stands for all of them. Lengths that differ are how requests are smuggled
/// (RFC 9112 §6.3).
inline bool contentLengthsAgree(std::string_view list, std::string_view* length) noexcept {
  const size_t comma = list.find(',');
  *length = trimmed(list.substr(0, comma));
  for (size_t at = comma; at != std::string_view::npos;) {
    const size_t next = list.find(',', at + 1);
    if (trimmed(list.substr(at + 1, next - at - 1)) != *length) return false;
    at = next;
  }
  return true;
}

}  // namespace vel
