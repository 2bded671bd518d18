// The layout is the one that log analysers know as "combined":
//   ADDRESS - USER [TIME] "METHOD TARGET VERSION" STATUS BYTES "REFERRER" "USER AGENT"
#include "access_log.h"

#include <array>
#include <optional>
#include <string_view>

namespace {

void appendEscaped(std::string& line, std::string_view text) {
  constexpr char kDigits[] = "0123456789abcdef";
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (c == '"' || c == '\\') {
      line += '\\';
      line += c;
    } else if (byte < 0x20 || byte > 0x7e) {
      line += "\\x";
      line += kDigits[byte >> 4];
      line += kDigits[byte & 15];
    } else {
      line += c;
    }
  }
}

/// The local time, made once per second and thread.
const std::string& timeText(std::time_t time) {
  thread_local std::time_t made_for = -1;
  thread_local std::string text;
  if (time != made_for) {
    std::tm parts{};
    ::localtime_r(&time, &parts);
    std::array<char, 64> buffer{};
    // The program never sets a locale, so months have their English names.
    text.assign(buffer.data(),
                std::strftime(buffer.data(), buffer.size(), "%d/%b/%Y:%H:%M:%S %z", &parts));
    made_for = time;
  }
  return text;
}

void appendRequestLine(std::string& line, const VELRequestSummary& summary) {
  line += '"';
  if (summary.method.empty()) {
    line += '-';
  } else {
    appendEscaped(line, summary.method);
    line += ' ';
    appendEscaped(line, summary.target);
    line += ' ';
    appendEscaped(line, summary.version);
  }
  line += '"';
}

void appendNumber(std::string& line, uint64_t number) {
  line += number == 0 ? std::string("-") : std::to_string(number);
}

void appendField(std::string& line, const VELRequestSummary& summary, std::string_view name) {
  std::optional<std::string> value;
  if (summary.request) value = summary.request->valueForHeader(name);
  line += '"';
  appendEscaped(line, value && !value->empty() ? *value : "-");
  line += '"';
}

}  // namespace

std::string accessLine(const VELRequestSummary& summary, std::time_t time) {
  std::string line;
  line.reserve(256);
  line += summary.peerAddress.host.empty() ? "-" : summary.peerAddress.host;
  line += " - - [";
  line += timeText(time);
  line += "] ";
  appendRequestLine(line, summary);
  line += ' ';
  appendNumber(line, summary.status);
  line += ' ';
  appendNumber(line, summary.bodyBytesSent);
  line += ' ';
  appendField(line, summary, "Referer");
  line += ' ';
  appendField(line, summary, "User-Agent");
  return line;
}
