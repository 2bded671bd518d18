// Bodies on the wire: by length, in chunks, with trailers, and what is no body at all.
#include "wire/wire_case.h"

namespace vel::test {
namespace {

const ExpectedAnswer kInvalid = {400, "", {"Content-Length: 0", "Connection: close"}};

/// A POST whose head has `field` and whose body is `body`.
std::string post(std::string_view field, const std::string& body) {
  return head({"POST /describe HTTP/1.1", field}) + body;
}

std::string postChunked(const std::string& body) {
  return post("Transfer-Encoding: chunked", body);
}

/// A chunked POST whose head has `lines` lines before the empty one.
std::string postChunkedWithLines(size_t lines, const std::string& body) {
  return "POST /describe HTTP/1.1\r\nTransfer-Encoding: chunked\r\n" + numberedFields(lines - 2) +
         "\r\n" + body;
}

ExpectedAnswer described(const std::string& text) { return {200, text}; }

class BodyCases : public WireTable {};
INSTANTIATE_WIRE_TABLE(BodyCases);

TEST_P(BodyCases, HaveTheirContentLength) {
  const auto refused = [](const std::string& value) {
    return WireCase{value, post("Content-Length: " + value, "abc"), {kInvalid}, After::kClosed};
  };
  const ExpectedAnswer done = described("POST 3 memory abc");
  run({
      {"3", post("Content-Length: 3", "abc"), {done}},
      {"leading zeros", post("Content-Length: 003", "abc"), {done}},
      {"a plus sign", post("Content-Length: +3", "abc"), {done}},
      {"text after it", post("Content-Length: 3abc", "abc"), {done}},
      {"the name in lower case", post("content-length: 3", "abc"), {done}},
      {"line ends in the body",
       post("Content-Length: 5", "\r\n\r\nd"),
       {described("POST 5 memory \r\n\r\nd")}},
      {"0", post("Content-Length: 0", ""), {described("POST 0 none ")}},
      {"none", head({"POST /describe HTTP/1.1"}), {described("POST 0 none ")}},
      {"a GET may have one",
       head({"GET /describe HTTP/1.1", "Content-Length: 3"}) + "abc",
       {described("GET 3 memory abc")}},
      refused("abc"),
      refused("-1"),
      refused("-0"),
      refused("18446744073709551616"),
      refused("99999999999999999999999999"),
      refused(""),
  });
}

TEST_P(BodyCases, AreChunkedByOneSpellingOfTheCoding) {
  const std::string chunks = "3\r\nabc\r\n0\r\n\r\n";
  const std::string list = "Transfer-Encoding: gzip, chunked";
  const std::string chunked = "\r\nTransfer-Encoding: chunked";
  const ExpectedAnswer done = described("POST 3 memory abc");
  run({
      {"chunked", postChunked(chunks), {done}},
      {"CHUNKED", post("transfer-encoding: CHUNKED", chunks), {done}},
      {"with a length", post("Content-Length: 100" + chunked, chunks), {done}},
      {"with a length that is no number", post("Content-Length: x" + chunked, chunks), {done}},
      {"a list is not recognised", post("Content-Length: 3\r\n" + list, "abc"), {done}},
      {"a list without a length is no body", post(list, ""), {described("POST 0 none ")}},
  });
}

TEST_P(BodyCases, HaveChunkSizes) {
  const auto accepted = [](const std::string& name, const std::string& line, size_t size) {
    const std::string data(size, 'c');
    return WireCase{name,
                    postChunked(line + "\r\n" + data + "\r\n0\r\n\r\n"),
                    {described("POST " + std::to_string(size) + " memory " + data)}};
  };
  const auto refused = [](const std::string& name, const std::string& line) {
    return WireCase{name, postChunked(line + "\r\n"), {kInvalid}, After::kClosed};
  };
  run({
      accepted("hexadecimal", "1a", 26),
      accepted("in upper case", "1A", 26),
      accepted("an extension", "1a;name=value", 26),
      accepted("a prefix", "0x10", 16),
      accepted("a blank before", " 5", 5),
      accepted("a plus sign", "+5", 5),
      accepted("leading zeros", "00000000000000000000005", 5),
      accepted("a line of 200 bytes", "5;" + std::string(196, 'x'), 5),
      {"a line of 201 bytes",
       postChunked("5;" + std::string(197, 'x') + "\r\n"),
       {},
       After::kClosed},
      {"200 bytes without an end", postChunked(std::string(200, '5')), {}, After::kClosed},
      {"several chunks",
       postChunked("1\r\na\r\n2\r\nbc\r\n3\r\ndef\r\n0\r\n\r\n"),
       {described("POST 6 memory abcdef")}},
      {"no chunk", postChunked("0\r\n\r\n"), {described("POST 0 memory ")}},
      refused("letters", "zz"),
      refused("nothing", ""),
      refused("an extension only", ";a=b"),
      refused("an overflow", "10000000000000000"),
      refused("not UTF-8", "\xff"),
      refused("a number and what is not UTF-8", "5;\xff"),
      {"no CR LF after the data", postChunked("3\r\nabcde"), {kInvalid}, After::kClosed},
      {"more data than the size",
       postChunked("3\r\nabcd\r\n0\r\n\r\n"),
       {kInvalid},
       After::kClosed},
  });
}

TEST_P(BodyCases, MayHaveTrailers) {
  const std::string last = "3\r\nabc\r\n0\r\n";
  const std::string eight_thousand = "X: " + std::string(8185, 'a') + "\r\n";
  const ExpectedAnswer done = described("POST 3 memory abc");
  run({
      {"one field", postChunked(last + "X: y\r\n\r\n"), {done}},
      {"a field that is no field", postChunked(last + "whatever\r\n\r\n"), {done}},
      {"a field of 8190 bytes", postChunked(last + eight_thousand + "\r\n"), {done}},
      {"a field of 8191 bytes",
       postChunked(last + "X" + eight_thousand + "\r\n"),
       {},
       After::kClosed},
      {"99 lines of head and trailer",
       postChunkedWithLines(90, last + numberedFields(9) + "\r\n"),
       {done}},
      {"100 lines of head and trailer",
       postChunkedWithLines(90, last + numberedFields(10) + "\r\n"),
       {},
       After::kClosed},
      {"a head of 100 lines leaves no room for the end of the trailer",
       postChunkedWithLines(100, last + "\r\n"),
       {},
       After::kClosed},
      {"the next request starts to count afresh",
       postChunkedWithLines(90, last + numberedFields(9) + "\r\n") + "GET /text HTTP/1.1\r\n" +
           numberedFields(99) + "\r\n",
       {done, {200, "Hello"}}},
  });
}

TEST_P(BodyCases, AreNotReadWithoutARoute) {
  const std::string request = head({"GET /text HTTP/1.1"});
  const std::string length = "Content-Length: " + std::to_string(request.size());
  const ExpectedAnswer not_found = {404, "", {"Content-Length: 0"}, {"Connection"}};
  run({
      {"a body that is a request",
       head({"POST /nowhere HTTP/1.1", length}) + request,
       {not_found, {200, "Hello"}}},
      {"a body that is none",
       head({"POST /nowhere HTTP/1.1", "Content-Length: 10"}) + "12345678\r\n",
       {not_found, kInvalid},
       After::kClosed},
      {"a bad length goes unnoticed",
       head({"POST /nowhere HTTP/1.1", "Content-Length: x"}),
       {not_found}},
      {"the end of a connection that asks for it",
       head({"POST /nowhere HTTP/1.1", "Connection: close"}),
       {not_found},
       After::kClosed},
  });
}

}  // namespace
}  // namespace vel::test
