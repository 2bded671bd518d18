# corvane_warnings: the warnings that our own targets compile with. Linked privately, never exported.
add_library(corvane_warnings INTERFACE)
target_compile_options(corvane_warnings INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wsign-conversion -Wold-style-cast -Wcast-align
  -Wcast-qual -Wnon-virtual-dtor -Woverloaded-virtual -Wformat=2 -Wimplicit-fallthrough
  -Wdouble-promotion -Wextra-semi -Wundef)
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
  target_compile_options(corvane_warnings INTERFACE -Wduplicated-cond -Wlogical-op)
  if(CMAKE_CXX_COMPILER_VERSION VERSION_LESS 13)
    # GCC 12 reports overlapping copies inside its own std::string::operator+.
    target_compile_options(corvane_warnings INTERFACE -Wno-restrict)
  endif()
  if(CORVANE_SANITIZE)
    # Instrumented code hides initialisations from the flow analysis.
    target_compile_options(corvane_warnings INTERFACE -Wno-maybe-uninitialized)
  endif()
endif()
if(CORVANE_WERROR)
  target_compile_options(corvane_warnings INTERFACE -Werror)
endif()
