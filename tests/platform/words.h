// words: a text split where there is space, for tables of short words.
#pragma once

#include <iterator>
#include <sstream>
#include <string>
#include <vector>

namespace vel::test {

inline std::vector<std::string> words(const std::string& text) {
  std::istringstream stream(text);
  return {std::istream_iterator<std::string>(stream), {}};
}

}  // namespace vel::test
