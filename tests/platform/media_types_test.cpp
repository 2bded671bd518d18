// Tests of the reader of mime.types files.
#include "platform/media_types.h"

#include <gtest/gtest.h>

namespace vel {
namespace {

TEST(MediaTypes, FindsExtensionsWhateverTheirCase) {
  const MediaTypes types(
      "# application/comment  comment\n"
      "text/html\t\thtml  htm\r\n"
      "application/without-extension\n"
      "\n"
      "image/jpeg jpeg JPG # a remark\n"
      "image/other jpeg other");
  const struct {
    std::string_view extension;
    std::string_view type;
  } cases[] = {
      {"html", "text/html"},    {"HTM", "text/html"}, {"jpg", "image/jpeg"}, {"Jpeg", "image/jpeg"},
      {"other", "image/other"}, {"comment", ""},      {"remark", ""},        {"", ""},
      {"text/html", ""},
  };
  for (const auto& [extension, type] : cases) {
    EXPECT_EQ(types.typeForExtension(extension).value_or(""), type) << extension;
  }
  EXPECT_FALSE(MediaTypes("").typeForExtension("html"));
}

}  // namespace
}  // namespace vel
