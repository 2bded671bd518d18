# CORVANE_SANITIZE=address,undefined or =thread instruments every target of this tree; the first
# finding ends the process, so that a test cannot pass over it.
if(CORVANE_SANITIZE)
  add_compile_options("-fsanitize=${CORVANE_SANITIZE}" -fno-sanitize-recover=all
                      -fno-omit-frame-pointer)
  add_link_options("-fsanitize=${CORVANE_SANITIZE}")
endif()
