#include "http/fixed_answers.h"

#include <array>
#include <cstddef>

#include "http/habits.h"
#include "http/tags.h"
#include "http/transmitter.h"

namespace vel {

namespace {

struct Row {
  uint64_t status;
  bool closes;
  std::string_view debug_text;
};

// In the order of the enumerators.
constexpr std::array<Row, 5> kRows{{
    {400, true, "Route for request evaluated with invalid request: "},
    {404, false, "Route for request evaluated with resource not found: "},
    {404, false,
     "Route for request evaluated with no response. This is likely due to misconfiguration: "},
    {500, false, "Route for request evaluated with a server error: "},
    {505, false, "Route for request evaluated with unsupported HTTP version: "},
}};

const Row& rowOf(FixedAnswer answer) noexcept { return kRows[static_cast<size_t>(answer)]; }

std::string bodyAbout(const VELError& error) {
  std::string body;
  for (const std::string* text : {&error.localizedDescription(), &error.localizedFailureReason(),
                                  &error.localizedRecoverySuggestion()}) {
    if (!text->empty()) body.append(*text).push_back('\n');
  }
  return body;
}

}  // namespace

uint64_t statusOf(FixedAnswer answer) noexcept { return rowOf(answer).status; }

std::string_view debugTextOf(FixedAnswer answer) noexcept { return rowOf(answer).debug_text; }

void writeFixedAnswer(FixedAnswer answer, const VELError* error, const VELLimits& limits,
                      VELSocket* socket, SentBytes* sent) {
  const Row& row = rowOf(answer);
  const int64_t tag = row.closes ? kLastAndCloseTag : kLastTag;
  const std::string body = error != nullptr ? bodyAbout(*error) : std::string();
  ResponseHeadBuilder head(row.status);
  head.setContentLength(error != nullptr ? serverErrorContentLength(body.size()) : 0);
  if (error != nullptr) head.setOwnField("Content-Type", "text/plain");
  if (row.closes) head.setOwnField("Connection", "close");
  completeHead({}, &head);
  AnswerWriter writer(*socket, limits, *sent);
  if (body.empty()) {
    writer.writeHead(head, tag);
    return;
  }
  std::string message;
  message.reserve(head.size() + body.size());
  head.appendTo(&message);
  message.append(body);
  writer.writeHeadWithBody(message, body.size(), tag);
}

}  // namespace vel
