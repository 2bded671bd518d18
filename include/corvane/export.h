// CORVANE_EXPORT: marks what the library promises. Everything else is hidden in a shared library.
#pragma once

#if defined(CORVANE_STATIC)
#define CORVANE_EXPORT
#else
#define CORVANE_EXPORT __attribute__((visibility("default")))
#endif
