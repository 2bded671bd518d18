// What the command lines of all commands have in common: how options are declared with CLI11, and how one
// that cannot be followed is told.
#pragma once

#include <CLI/CLI.hpp>
#include <functional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "options.h"

/// A command line that cannot be followed; the text is one sentence for the user.
class WrongOption : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

WrongOption wrongValue(std::string_view option, std::string_view value, std::string_view need);
WrongOption notAvailable(std::string_view what);

/// Makes `app` show `usage` instead of what CLI11 makes of the options.
void setUsage(CLI::App& app, const std::string& usage);
/// An option with one value, the last one that is given.
void addValue(CLI::App& app, const std::string& name, std::string& value, const std::string& help,
              const std::string& type);
/// An option that may be given several times.
void addRepeatable(CLI::App& app, const std::string& name, std::vector<std::string>& values,
                   const std::string& help, const std::string& type);

/// Accepts what is available of `--profile`; none stands for the default.
void checkProfile(const std::string& profile);
/// Whether `text` is a token (RFC 9110 §5.6.2).
bool isToken(std::string_view text);

/// Has `app` parse `arguments`, and gives what `check` then makes of them, or what to say instead.
Command parseWith(CLI::App& app, std::vector<std::string> arguments,
                  const std::function<Command()>& check);
