#include "option_parsing.h"

#include <algorithm>
#include <memory>
#include <utility>

namespace {

class HelpFormatter : public CLI::Formatter {
 public:
  explicit HelpFormatter(std::string usage) : usage_(std::move(usage)) {}
  std::string make_usage(const CLI::App*, std::string) const override { return usage_; }
  std::string make_option_opts(const CLI::Option* option) const override {
    const std::string type = option->get_type_name();
    return type.empty() ? "" : " " + type;
  }

 private:
  std::string usage_;
};

Farewell wrongOption(const std::string& sentence) {
  return {kWrongOption, "corvane: " + sentence + "\n"};
}

std::string sentenceFor(const CLI::ParseError& error) {
  const std::string text = error.what();
  if (dynamic_cast<const CLI::ArgumentMismatch*>(&error) != nullptr) {
    return text.substr(0, text.find(':')) + " needs a value";
  }
  return text;
}

}  // namespace

WrongOption wrongValue(std::string_view option, std::string_view value, std::string_view need) {
  return WrongOption(std::string(option) + " " + std::string(value) + ": " + std::string(need));
}

WrongOption notAvailable(std::string_view what) {
  return WrongOption(std::string(what) + " is not available yet");
}

void setUsage(CLI::App& app, const std::string& usage) {
  app.formatter(std::make_shared<HelpFormatter>(usage));
}

void addValue(CLI::App& app, const std::string& name, std::string& value, const std::string& help,
              const std::string& type) {
  app.add_option(name, value, help)
      ->type_name(type)
      ->multi_option_policy(CLI::MultiOptionPolicy::TakeLast);
}

void addRepeatable(CLI::App& app, const std::string& name, std::vector<std::string>& values,
                   const std::string& help, const std::string& type) {
  // Without extra arguments an option takes exactly one value each time that it is given.
  app.add_option(name, values, help)->type_name(type)->allow_extra_args(false);
}

void checkProfile(const std::string& profile) {
  if (profile == "standard") throw notAvailable("--profile standard");
  if (!profile.empty() && profile != "classic") {
    throw wrongValue("--profile", profile, "there is only the profile classic");
  }
}

bool isToken(std::string_view text) {
  constexpr std::string_view kPunctuation = "!#$%&'*+-.^_`|~";
  return !text.empty() && std::all_of(text.begin(), text.end(), [&](char c) {
    return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') ||
           kPunctuation.find(c) != std::string_view::npos;
  });
}

Command parseWith(CLI::App& app, std::vector<std::string> arguments,
                  const std::function<Command()>& check) {
  try {
    // CLI11 takes the arguments from the back of the list.
    std::reverse(arguments.begin(), arguments.end());
    app.parse(std::move(arguments));
    return check();
  } catch (const CLI::CallForVersion& version) {
    return Farewell{0, std::string(version.what()) + "\n"};
  } catch (const CLI::CallForHelp&) {
    return Farewell{0, app.help()};
  } catch (const CLI::ParseError& error) {
    return wrongOption(sentenceFor(error));
  } catch (const WrongOption& error) {
    return wrongOption(error.what());
  }
}
