// Texts: UTF-8, percent-encoding, and the quick looks at field names and values, which go over many
// bytes at a time, against loops over one byte after the other. Every text is also read from each of
// its first places on, so that all lengths and alignments come.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "http/field_text.h"
#include "platform/ascii.h"
#include "platform/percent.h"
#include "platform/utf8.h"
#include "support/exact_copy.h"
#include "support/plain_text.h"
#include "support/require.h"

namespace vel::fuzz {
namespace {

constexpr size_t kFirstPlaces = 17;
constexpr size_t kPlacesToDecode = 3;

bool isBadInField(char c) {
  const auto byte = static_cast<unsigned char>(c);
  return (byte < 0x20 && byte != '\t') || byte == 0x7F;
}

void checkFieldText(std::string_view text) {
  size_t token = 0;
  while (token < text.size() && isTokenCharacter(text[token])) ++token;
  require(tokenLength(text) == token, "the length of the token");
  require(isFieldName(text) == (token == text.size() && token > 0), "whether it can name a field");

  const bool is_good = std::none_of(text.begin(), text.end(), isBadInField);
  require(isFieldText(text) == is_good, "whether it can be a value");
  std::string out(text.size(), '?');
  require(copyFieldText(text, out.data()) == is_good && out == text, "a copy of the value");
  std::string clean(text);
  std::replace_if(clean.begin(), clean.end(), isBadInField, ' ');
  copyCleanFieldText(text, out.data());
  require(out == clean, "a clean copy of the value");
}

void checkEncodings(std::string_view text) {
  const bool is_ascii =
      std::all_of(text.begin(), text.end(), [](unsigned char c) { return c < 0x80; });
  require(isASCII(text) == is_ascii, "whether it is ASCII");
  require(isValidUTF8(text) == isPlainlyUTF8(text), "whether it is UTF-8");

  for (const PlusSign plus : {PlusSign::kStays, PlusSign::kIsBlank}) {
    const Decoded decoded = plainlyDecoded(text, plus == PlusSign::kIsBlank);
    std::string out = "before";
    require(appendPercentDecoded(text, MalformedEscape::kStaysLiteral, plus, &out),
            "literal escapes never fail");
    require(out == "before" + decoded.text, "the decoded text");
    out.clear();
    const bool is_good = appendPercentDecoded(text, MalformedEscape::kFails, plus, &out);
    require(is_good == decoded.is_good && (!is_good || out == decoded.text), "strict decoding");
  }
  std::string encoded;
  appendPercentEncodedPath(text, &encoded);
  require(plainlyDecoded(encoded, false).text == text, "what is encoded decodes");
  require(encoded.find_first_of(" ?#[]\"<>\\^`{|}") == std::string::npos,
          "what a path cannot hold");
}

void check(std::string_view text) {
  for (size_t place = 0; place < kFirstPlaces && place <= text.size(); ++place) {
    const ExactCopy copy(text.substr(place));
    checkFieldText(copy.view());
    if (place < kPlacesToDecode) checkEncodings(copy.view());
  }
}

}  // namespace
}  // namespace vel::fuzz

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  vel::fuzz::check({reinterpret_cast<const char*>(data), size});
  return 0;
}
