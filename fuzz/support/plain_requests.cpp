#include "support/plain_requests.h"

#include <strings.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <optional>

#include "corvane/url.h"
#include "platform/utf8.h"
#include "support/plain_head.h"

namespace vel::fuzz {
namespace {

/// What became of one step of the reading.
enum class Step : uint8_t { kGood, kWaits, kDropped, kTooMany, kBad };

bool isEqual(const std::optional<std::string>& value, const char* text) {
  return value && value->size() == std::string_view(text).size() &&
         ::strcasecmp(value->c_str(), text) == 0;
}

/// The number at the start of `text`; none without one. "-" in front is for chunk sizes only.
std::optional<uint64_t> numberIn(const std::string& text, int base) {
  const size_t first = text.find_first_not_of(" \t\n\v\f\r");
  if (base == 10 && first != std::string::npos && text[first] == '-') return std::nullopt;
  char* end = nullptr;
  errno = 0;
  const uint64_t value = std::strtoull(text.c_str(), &end, base);
  if (errno != 0 || end == text.c_str()) return std::nullopt;
  return value;
}

class Reader {
 public:
  Reader(std::string_view bytes, const VELLimits& limits) : bytes_(bytes), limits_(limits) {}

  PlainRequests read() {
    Step step = Step::kGood;
    while (step == Step::kGood && result_.ending == Ending::kWaits) step = readRequest();
    if (step == Step::kDropped) result_.ending = Ending::kDropped;
    // Closed without an answer, once those to earlier requests have left.
    if (step == Step::kTooMany) result_.ending = Ending::kCloses;
    if (step == Step::kBad) {
      result_.statuses.push_back(400);
      result_.ending = Ending::kCloses;
    }
    result_.unread = bytes_.size();
    return std::move(result_);
  }

 private:
  /// Takes bytes up to and including CR LF, which have to be `most` at most.
  Step takeLine(size_t most, std::string* line) {
    const size_t end = bytes_.find("\r\n");
    if (end == std::string_view::npos || end + 2 > most) {
      return bytes_.size() < most ? Step::kWaits : Step::kDropped;
    }
    *line = bytes_.substr(0, end + 2);
    bytes_.remove_prefix(end + 2);
    return Step::kGood;
  }

  /// Takes the pieces that have come whole, even if more are to come.
  Step takeBytes(uint64_t length, std::string* bytes) {
    while (length > 0) {
      const auto next = static_cast<size_t>(std::min<uint64_t>(length, limits_.bodyPiece));
      if (bytes_.size() < next) return Step::kWaits;
      bytes->append(bytes_.substr(0, next));
      bytes_.remove_prefix(next);
      length -= next;
    }
    return Step::kGood;
  }

  Step readRequest() {
    PlainHead head;
    Step step = readHead(&head);
    if (step != Step::kGood) return step;
    const auto url = VELURL::URLWithRequestTarget(head.target);
    const bool has_route = url && url->path().starts_with('/');
    if (!has_route) return answer(head, 404);
    std::string body;
    step = readBody(head, &body);
    if (step != Step::kGood) return step;
    if (head.version != "HTTP/1.1" && head.version != "HTTP/1.0") return answer(head, 505);
    if (head.method == "OPTIONS") return answer(head, 204);
    if (head.method == "TRACE") return answer(head, 200);
    constexpr std::array<std::string_view, 4> kMethods = {"GET", "HEAD", "POST", "PUT"};
    if (std::find(kMethods.begin(), kMethods.end(), head.method) == kMethods.end()) {
      return answer(head, 405);
    }
    result_.evaluated.push_back(requestText(head.method, head.target, body));
    return answer(head, 200);
  }

  Step readHead(PlainHead* head) {
    lines_ = 0;
    while (head->progress == HeadProgress::kNeedsMore) {
      std::string line;
      const Step step = takeLine(limits_.headLineLength, &line);
      if (step != Step::kGood) return step;
      // A line ends with CR LF here; a bare LF is a part of it, and no head has such a line.
      if (line.find('\n') < line.size() - 1) return Step::kBad;
      head->appendLine(line);
      if (head->progress == HeadProgress::kMalformed || !head->is_request) return Step::kBad;
      if (head->progress == HeadProgress::kNeedsMore && ++lines_ > limits_.headLines) {
        return Step::kTooMany;
      }
    }
    return Step::kGood;
  }

  Step readBody(const PlainHead& head, std::string* body) {
    if (isEqual(head.value("Transfer-Encoding"), "chunked")) return readChunks(body);
    const std::optional<std::string> field = head.value("Content-Length");
    if (!field) return Step::kGood;
    const std::optional<uint64_t> length = numberIn(*field, 10);
    return length ? takeBytes(*length, body) : Step::kBad;
  }

  Step readChunks(std::string* body) {
    for (;;) {
      std::string line;
      Step step = takeLine(limits_.chunkSizeLineLength, &line);
      if (step != Step::kGood) return step;
      const std::optional<uint64_t> size = numberIn(line, 16);
      if (!size || !isValidUTF8(line)) return Step::kBad;
      if (*size == 0) return readTrailer();
      step = takeBytes(*size, body);
      if (step != Step::kGood) return step;
      if (bytes_.size() < 2) return Step::kWaits;
      const std::string_view end = bytes_.substr(0, 2);
      bytes_.remove_prefix(2);
      if (end != "\r\n") return Step::kBad;
    }
  }

  Step readTrailer() {
    for (;;) {
      std::string line;
      const Step step = takeLine(limits_.headLineLength, &line);
      if (step != Step::kGood) return step;
      if (++lines_ > limits_.headLines) return Step::kTooMany;
      if (line == "\r\n") return Step::kGood;
    }
  }

  Step answer(const PlainHead& head, int status) {
    result_.statuses.push_back(status);
    const std::optional<std::string> connection = head.value("Connection");
    const bool dies = head.version == "HTTP/1.1"   ? isEqual(connection, "close")
                      : head.version == "HTTP/1.0" ? !isEqual(connection, "keep-alive")
                                                   : false;
    if (dies) result_.ending = Ending::kCloses;
    return Step::kGood;
  }

  std::string_view bytes_;
  const VELLimits& limits_;
  uint64_t lines_ = 0;
  PlainRequests result_;
};

}  // namespace

std::string requestText(std::string_view method, std::string_view target, std::string_view body) {
  std::string text(method);
  return text.append(1, '\n').append(target).append(1, '\n').append(body);
}

PlainRequests plainRequestsOf(std::string_view bytes, const VELLimits& limits) {
  return Reader(bytes, limits).read();
}

}  // namespace vel::fuzz
