# Compiles through ccache where it is installed and nobody has chosen another launcher.
if(CORVANE_CCACHE AND NOT CMAKE_CXX_COMPILER_LAUNCHER)
  find_program(CORVANE_CCACHE_PROGRAM ccache)
  mark_as_advanced(CORVANE_CCACHE_PROGRAM)
  if(CORVANE_CCACHE_PROGRAM)
    set(CMAKE_CXX_COMPILER_LAUNCHER "${CORVANE_CCACHE_PROGRAM}")
  endif()
endif()
