// Class names come out of the run-time type information, demangled by the C++ ABI's own function.
#include "platform/object_description.h"

#include <cxxabi.h>

#include <array>
#include <charconv>
#include <cstdint>
#include <cstdlib>
#include <memory>

namespace vel {

std::string className(const std::type_info& type) {
  int status = 0;
  const std::unique_ptr<char, decltype(&std::free)> name(
      abi::__cxa_demangle(type.name(), nullptr, nullptr, &status), &std::free);
  return status == 0 && name ? std::string(name.get()) : std::string(type.name());
}

std::string objectDescription(const std::type_info& type, const void* address) {
  std::array<char, 2 * sizeof(uintptr_t)> digits{};
  const auto end = std::to_chars(digits.data(), digits.data() + digits.size(),
                                 reinterpret_cast<uintptr_t>(address), 16)
                       .ptr;
  std::string text = "<" + className(type) + ": 0x";
  text.append(digits.data(), end);
  text.push_back('>');
  return text;
}

}  // namespace vel
