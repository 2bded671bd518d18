#include "support/plain_head.h"

#include <strings.h>

#include <algorithm>

namespace vel::fuzz {
namespace {

constexpr std::string_view kTokenCharacters =
    "!#$%&'*+-.^_`|~0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz";

bool isPlainToken(std::string_view text) {
  return !text.empty() && text.find_first_not_of(kTokenCharacters) == std::string_view::npos;
}

bool isSameName(std::string_view a, std::string_view b) {
  return a.size() == b.size() && ::strncasecmp(a.data(), b.data(), a.size()) == 0;
}

std::string withoutBlanks(std::string_view text) {
  const size_t first = text.find_first_not_of(" \t");
  if (first == std::string_view::npos) return {};
  return std::string(text.substr(first, text.find_last_not_of(" \t") - first + 1));
}

bool hasControls(std::string_view text) {
  return std::any_of(text.begin(), text.end(),
                     [](unsigned char c) { return (c < 0x20 && c != '\t') || c == 0x7F; });
}

bool isVersion(std::string_view text) {
  constexpr std::string_view kDigits = "0123456789";
  return text.size() == 8 && text.substr(0, 5) == "HTTP/" && kDigits.find(text[5]) < 10 &&
         text[6] == '.' && kDigits.find(text[7]) < 10;
}

bool takeRequestLine(std::string_view line, PlainHead* head) {
  const size_t first = line.find(' ');
  const size_t last = line.rfind(' ');
  if (first == std::string_view::npos || first == last) return false;
  head->method = line.substr(0, first);
  head->target = line.substr(first + 1, last - first - 1);
  head->version = line.substr(last + 1);
  RequestTarget target;
  return isPlainToken(head->method) && isVersion(head->version) &&
         parseRequestTarget(head->target, &target);
}

bool takeStatusLine(std::string_view line, PlainHead* head) {
  head->is_request = false;
  const std::string_view rest = line.substr(std::min<size_t>(line.size(), 8));
  if (!isVersion(line.substr(0, 8)) || rest.size() < 4 || rest[0] != ' ') return false;
  const std::string_view code = rest.substr(1, 3);
  if (code.find_first_not_of("0123456789") != std::string_view::npos) return false;
  if (rest.size() > 4 && rest[4] != ' ') return false;
  head->version = line.substr(0, 8);
  head->status = std::stoi(std::string(code));
  head->reason = rest.size() > 5 ? rest.substr(5) : std::string_view();
  return true;
}

bool takeField(std::string_view line, PlainHead* head) {
  const size_t colon = line.find(':');
  if (colon == std::string_view::npos || !isPlainToken(line.substr(0, colon))) return false;
  head->fields.emplace_back(line.substr(0, colon), withoutBlanks(line.substr(colon + 1)));
  return true;
}

bool takeFoldedLine(std::string_view line, PlainHead* head) {
  if (head->is_request || head->fields.empty()) return false;
  std::string& value = head->fields.back().second;
  const std::string more = withoutBlanks(line);
  if (!value.empty() && !more.empty()) value += ' ';
  value += more;
  return true;
}

std::vector<std::string> membersOf(std::string_view list) {
  std::vector<std::string> members;
  for (;;) {
    const size_t comma = list.find(',');
    members.push_back(withoutBlanks(list.substr(0, comma)));
    if (comma == std::string_view::npos) return members;
    list.remove_prefix(comma + 1);
  }
}

}  // namespace

bool operator==(const PlainHead& a, const PlainHead& b) {
  if (a.progress != b.progress) return false;
  if (a.progress == HeadProgress::kMalformed) return true;
  return a.has_start_line == b.has_start_line && a.is_request == b.is_request &&
         a.method == b.method && a.target == b.target && a.version == b.version &&
         a.status == b.status && a.reason == b.reason && a.fields == b.fields;
}

void PlainHead::appendLine(std::string_view line) {
  if (progress != HeadProgress::kNeedsMore) return;
  if (line.ends_with('\n')) line.remove_suffix(1);
  if (line.ends_with('\r')) line.remove_suffix(1);
  if (line.empty() && !has_start_line) return;
  bool is_good = !hasControls(line);
  if (line.empty()) {
    progress = HeadProgress::kComplete;
    const std::vector<std::string> lengths = membersOf(value("Content-Length").value_or(""));
    is_good = std::all_of(lengths.begin(), lengths.end(),
                          [&](const std::string& length) { return length == lengths[0]; });
  } else if (!has_start_line) {
    has_start_line = true;
    is_good = is_good && (line.substr(0, 5) == "HTTP/" ? takeStatusLine(line, this)
                                                       : takeRequestLine(line, this));
  } else if (line[0] == ' ' || line[0] == '\t') {
    is_good = is_good && takeFoldedLine(line, this);
  } else {
    is_good = is_good && takeField(line, this);
  }
  if (!is_good) progress = HeadProgress::kMalformed;
}

size_t PlainHead::appendLinesOf(std::string_view bytes) {
  size_t at = 0;
  while (progress == HeadProgress::kNeedsMore) {
    const size_t end = bytes.find('\n', at);
    if (end == std::string_view::npos) break;
    appendLine(bytes.substr(at, end + 1 - at));
    at = end + 1;
  }
  return at;
}

std::optional<std::string> PlainHead::value(std::string_view name) const {
  std::optional<std::string> joined;
  for (const auto& [field, value] : fields) {
    if (!isSameName(field, name)) continue;
    if (joined) {
      joined->append(isSameName(name, "Cookie") ? "; " : ", ").append(value);
    } else {
      joined = value;
    }
  }
  return joined;
}

PlainHead plainHeadOf(const MessageHead& head) {
  PlainHead plain;
  plain.progress = head.progress();
  plain.has_start_line = head.hasStartLine();
  plain.is_request = head.isRequest();
  plain.method = head.method();
  if (head.isRequest()) plain.target = head.target().text;
  plain.version = head.version();
  plain.status = head.status();
  plain.reason = head.reason();
  for (size_t i = 0; i < head.fieldCount(); ++i) {
    plain.fields.emplace_back(head.fieldAt(i).name, head.fieldAt(i).value);
  }
  return plain;
}

}  // namespace vel::fuzz
