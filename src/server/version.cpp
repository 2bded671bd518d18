// The version as text, made from the numbers of the header.
#include "corvane/version.h"

#define CORVANE_TEXT_OF(number) #number
#define CORVANE_TEXT(number) CORVANE_TEXT_OF(number)

std::string_view VELVersion() noexcept {
  return CORVANE_TEXT(CORVANE_VERSION_MAJOR) "." CORVANE_TEXT(
      CORVANE_VERSION_MINOR) "." CORVANE_TEXT(CORVANE_VERSION_PATCH);
}
