// The command line of the program: what a user may ask for, and how it is read and checked. What is
// done with it stands in serve.cpp, routes.cpp and connect.cpp.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <variant>
#include <vector>

/// A user who may use a route.
struct UserOption {
  std::string name;
  std::string password;
};

/// One route of the command line.
struct RouteOption {
  enum class Kind { kText, kReflect, kInspect, kFiles, kProxy, kEcho };

  Kind kind;
  /// Begins with "/".
  std::string path;
  /// What a text route answers with, the directory of a file route, or the URL of a proxy route.
  std::string text;
  /// Replaces the methods that the kind of route allows.
  std::optional<std::vector<std::string>> methods = std::nullopt;
  /// Without any the route is open to everybody.
  std::vector<UserOption> users = {};
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
  /// What users are asked a password for.
  std::optional<std::string> realm;
  bool debug = false;
  bool quiet = false;
};

struct ConnectOptions {
  /// Of the scheme "ws" or "http", with a host.
  std::string url;
  std::vector<std::string> protocols;
  /// Name and value.
  std::vector<std::pair<std::string, std::string>> headers;
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

using Command = std::variant<ServeOptions, ConnectOptions, Farewell>;

Command parseOptions(int argc, const char* const* argv);
/// What follows the word "connect".
Command parseConnectOptions(std::vector<std::string> arguments);
