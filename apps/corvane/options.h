// The command line of the program: what a user may ask for, and how it is read and checked. What is
// done with it stands in serve.cpp and routes.cpp.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <variant>
#include <vector>

/// One route of the command line.
struct RouteOption {
  enum class Kind { kText, kReflect, kInspect, kFiles };

  Kind kind;
  /// Begins with "/".
  std::string path;
  /// What a text route answers with; the directory of a file route.
  std::string text;
  /// Replaces the methods that the kind of route allows.
  std::optional<std::vector<std::string>> methods;
};

struct ServeOptions {
  std::string host = "localhost";
  uint16_t port = 8080;
  /// Both are set for HTTPS, none for HTTP.
  std::string certificateFile;
  std::string keyFile;
  /// In seconds; without it the library's default holds.
  std::optional<double> keepAlive;
  /// 0: one per core.
  size_t threads = 0;
  /// In the order of the command line, the one for DIRECTORY last.
  std::vector<RouteOption> routes;
  /// What stands for a directory in the file routes; without any the library's default holds.
  std::vector<std::string> indexNames;
  bool debug = false;
  bool quiet = false;
};

/// What is left to do when there is nothing to serve: print `text` on standard output, or, when
/// `exitCode` is not zero, on standard error.
struct Farewell {
  int exitCode;
  std::string text;
};

/// Exit codes of the program beside 0.
inline constexpr int kCannotStart = 1;
inline constexpr int kWrongOption = 2;

std::variant<ServeOptions, Farewell> parseOptions(int argc, const char* const* argv);
