# Install rules: headers, library, CMake package, pkg-config file and, where it is built, the program.
include(CMakePackageConfigHelpers)

set(CORVANE_CMAKE_DIR "${CMAKE_INSTALL_LIBDIR}/cmake/corvane")

install(DIRECTORY "${PROJECT_SOURCE_DIR}/include/corvane" DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}"
        FILES_MATCHING PATTERN "*.h")
install(TARGETS corvane EXPORT corvaneTargets
        ARCHIVE DESTINATION "${CMAKE_INSTALL_LIBDIR}"
        LIBRARY DESTINATION "${CMAKE_INSTALL_LIBDIR}"
        RUNTIME DESTINATION "${CMAKE_INSTALL_BINDIR}")
# Who links the installed library has other flags, with which its objects would be optimised once more.
if(CORVANE_LTO AND NOT BUILD_SHARED_LIBS)
  install(CODE "execute_process(
    COMMAND \"${CMAKE_OBJCOPY}\" --wildcard --remove-section=.gnu.lto_* --remove-section=.gnu.debuglto_*
            \"\$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_LIBDIR}/$<TARGET_FILE_NAME:corvane>\"
    COMMAND_ERROR_IS_FATAL ANY)")
endif()
install(EXPORT corvaneTargets NAMESPACE corvane:: DESTINATION "${CORVANE_CMAKE_DIR}")

configure_package_config_file(
  "${PROJECT_SOURCE_DIR}/cmake/corvaneConfig.cmake.in" "${PROJECT_BINARY_DIR}/corvaneConfig.cmake"
  INSTALL_DESTINATION "${CORVANE_CMAKE_DIR}")
# Before 1.0 a new minor version may change the interface.
write_basic_package_version_file("${PROJECT_BINARY_DIR}/corvaneConfigVersion.cmake"
                                 COMPATIBILITY SameMinorVersion)
install(FILES "${PROJECT_BINARY_DIR}/corvaneConfig.cmake"
              "${PROJECT_BINARY_DIR}/corvaneConfigVersion.cmake"
        DESTINATION "${CORVANE_CMAKE_DIR}")

# A static library hands its own needs on to whoever links it; a shared one keeps them to itself.
set(CORVANE_PC_NEEDS "libssl >= 3.0, libcrypto >= 3.0, libpcre2-8 >= 10.30")
if(BUILD_SHARED_LIBS)
  set(CORVANE_PC_REQUIRES "Requires.private: ${CORVANE_PC_NEEDS}")
  set(CORVANE_PC_CFLAGS "")
else()
  set(CORVANE_PC_REQUIRES "Requires: ${CORVANE_PC_NEEDS}")
  set(CORVANE_PC_CFLAGS " -DCORVANE_STATIC")
endif()
file(RELATIVE_PATH CORVANE_PC_PREFIX
     "${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig" "${CMAKE_INSTALL_PREFIX}")
string(REGEX REPLACE "/$" "" CORVANE_PC_PREFIX "${CORVANE_PC_PREFIX}")
configure_file("${PROJECT_SOURCE_DIR}/cmake/corvane.pc.in" "${PROJECT_BINARY_DIR}/corvane.pc" @ONLY)
install(FILES "${PROJECT_BINARY_DIR}/corvane.pc" DESTINATION "${CMAKE_INSTALL_LIBDIR}/pkgconfig")

if(CORVANE_BUILD_PROGRAM)
  file(RELATIVE_PATH to_library "${CMAKE_INSTALL_FULL_BINDIR}" "${CMAKE_INSTALL_FULL_LIBDIR}")
  set_target_properties(corvane-program PROPERTIES INSTALL_RPATH "$ORIGIN/${to_library}")
  install(TARGETS corvane-program RUNTIME DESTINATION "${CMAKE_INSTALL_BINDIR}")
endif()
