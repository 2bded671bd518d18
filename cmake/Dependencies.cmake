# What the library itself is built on. Tools of the program, tests and benchmarks are found where
# they are used. corvaneConfig.cmake.in repeats this list for users of a static library.
set(THREADS_PREFER_PTHREAD_FLAG ON)
find_package(Threads REQUIRED)
find_package(OpenSSL 3.0 REQUIRED)
find_package(PkgConfig REQUIRED)
pkg_check_modules(CORVANE_PCRE2 REQUIRED IMPORTED_TARGET GLOBAL libpcre2-8>=10.30)
pkg_check_modules(CORVANE_CURL REQUIRED IMPORTED_TARGET GLOBAL libcurl>=7.85)
set(CORVANE_LIBRARIES OpenSSL::SSL OpenSSL::Crypto PkgConfig::CORVANE_PCRE2 PkgConfig::CORVANE_CURL
    Threads::Threads)
