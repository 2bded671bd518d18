// Reading the command line with CLI11. Route options keep their order across different options, which
// is the order in which the routes are tried.
#include "options.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <charconv>
#include <cmath>
#include <map>
#include <stdexcept>
#include <string_view>
#include <utility>

#include "corvane/version.h"

namespace {

constexpr double kLongestKeepAlive = 1e9;
constexpr size_t kMostThreads = 1024;

/// A command line that cannot be followed; the text is one sentence for the user.
class WrongOption : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

WrongOption wrongValue(std::string_view option, std::string_view value, std::string_view need) {
  return WrongOption(std::string(option) + " " + std::string(value) + ": " + std::string(need));
}

WrongOption notAvailable(std::string_view what) {
  return WrongOption(std::string(what) + " is not available yet");
}

/// Help that shows how the program is called instead of what CLI11 makes of the options.
class HelpFormatter : public CLI::Formatter {
 public:
  std::string make_usage(const CLI::App*, std::string) const override {
    return "Usage: corvane [serve] [OPTIONS] [DIRECTORY]\n";
  }
  std::string make_option_opts(const CLI::Option* option) const override {
    const std::string type = option->get_type_name();
    return type.empty() ? "" : " " + type;
  }
};

/// What the command line holds before it is checked.
struct RawOptions {
  std::string listen = "localhost:8080";
  std::string certificate;
  std::string key;
  std::string keep_alive;
  std::string threads;
  std::string profile;
  std::vector<std::string> texts;
  std::vector<std::string> reflects;
  std::vector<std::string> inspects;
  std::vector<std::string> files;
  std::string index;
  std::vector<std::string> methods;
  std::string directory;
  bool debug = false;
  bool quiet = false;
};

constexpr const char* kLaterOptions[] = {"--proxy", "--echo", "--auth", "--realm"};
constexpr std::string_view kRouteOptions[] = {"--text", "--reflect", "--inspect", "--files"};

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

void defineOptions(CLI::App& app, RawOptions& raw) {
  app.formatter(std::make_shared<HelpFormatter>());
  app.set_version_flag("--version", "corvane " + std::string(VELVersion()));
  addValue(app, "-l,--listen", raw.listen,
           "where to listen (default localhost:8080); port 0 lets the system choose, 0.0.0.0:PORT "
           "and [::]:PORT are every interface",
           "[HOST:]PORT");
  addValue(app, "--certificate", raw.certificate, "PEM certificate chain: serve HTTPS", "FILE");
  addValue(app, "--key", raw.key, "PEM private key of the certificate", "FILE");
  addValue(app, "--keep-alive", raw.keep_alive,
           "how long an idle connection stays open (default 15; 0: no timer)", "SECONDS");
  addValue(app, "--threads", raw.threads, "event-loop threads (default: one per core)", "N");
  app.add_option("DIRECTORY", raw.directory,
                 "serve its files under / (default, without any route: the current directory)")
      ->type_name("");
  addRepeatable(app, "--files", raw.files, "serve the files of DIRECTORY under PATH",
                "PATH=DIRECTORY");
  addValue(app, "--index", raw.index,
           "the files that stand for a directory, the first that is there (default index.html)",
           "NAME[,NAME...]");
  addRepeatable(app, "--text", raw.texts, "answer with TEXT under PATH", "PATH=TEXT");
  addRepeatable(app, "--reflect", raw.reflects, "answer with the request's body", "PATH");
  addRepeatable(app, "--inspect", raw.inspects, "answer with a description of the request in JSON",
                "PATH");
  addRepeatable(app, "--methods", raw.methods, "the allowed methods of the route given for PATH",
                "PATH=M[,M...]");
  addValue(app, "--profile", raw.profile, "the behaviour profile: classic", "NAME");
  app.add_flag("--debug", raw.debug, "log what happens on each connection");
  app.add_flag("--quiet", raw.quiet, "write no access lines");
  for (const char* name : kLaterOptions) app.add_option(name)->group("");
}

uint64_t parseNumber(std::string_view option, std::string_view text, uint64_t least,
                     uint64_t most) {
  uint64_t number = 0;
  const char* end = text.data() + text.size();
  const auto [rest, error] = std::from_chars(text.data(), end, number);
  if (error != std::errc() || rest != end || number < least || number > most) {
    throw wrongValue(
        option, text,
        "a number from " + std::to_string(least) + " to " + std::to_string(most) + " is needed");
  }
  return number;
}

double parseSeconds(std::string_view option, std::string_view text) {
  double seconds = 0;
  const char* end = text.data() + text.size();
  const auto [rest, error] = std::from_chars(text.data(), end, seconds);
  // Written so that "nan" is refused as well.
  if (error != std::errc() || rest != end || !(seconds >= 0 && seconds <= kLongestKeepAlive)) {
    throw wrongValue(option, text, "a number of seconds, 0 or more, is needed");
  }
  return seconds;
}

void parseListen(const std::string& text, ServeOptions& options) {
  const size_t colon = text.rfind(':');
  if (colon != std::string::npos) {
    std::string host = text.substr(0, colon);
    const bool bracketed = host.size() > 2 && host.front() == '[' && host.back() == ']';
    if (bracketed) host = host.substr(1, host.size() - 2);
    if (host.empty() || (!bracketed && host.find(':') != std::string::npos)) {
      throw wrongValue("--listen", text, "[HOST:]PORT is needed, an IPv6 address in brackets");
    }
    options.host = host;
  }
  const std::string_view port =
      std::string_view(text).substr(colon == std::string::npos ? 0 : colon + 1);
  options.port = static_cast<uint16_t>(parseNumber("--listen port", port, 0, 65535));
}

/// The path as routes see it: with a "/" before it.
std::string normalisedPath(std::string_view option, std::string_view path) {
  if (path.empty()) throw wrongValue(option, "\"\"", "a PATH is needed");
  return path.front() == '/' ? std::string(path) : "/" + std::string(path);
}

std::pair<std::string, std::string> splitAtEqualsSign(std::string_view option,
                                                      std::string_view value) {
  const size_t equals = value.find('=');
  if (equals == std::string_view::npos) {
    throw wrongValue(option, value, "a PATH, an equals sign and a value are needed");
  }
  return {normalisedPath(option, value.substr(0, equals)), std::string(value.substr(equals + 1))};
}

// A request for "/docs/" has the path "/docs".
std::string withoutTrailingSlashes(std::string path) {
  while (path.size() > 1 && path.back() == '/') path.pop_back();
  return path;
}

RouteOption makeFileRoute(std::string path, std::string directory) {
  return {RouteOption::Kind::kFiles, withoutTrailingSlashes(std::move(path)), std::move(directory),
          std::nullopt};
}

RouteOption makeRoute(const std::string& option, const std::string& value) {
  if (option == "--files") {
    auto [path, directory] = splitAtEqualsSign(option, value);
    if (directory.empty()) throw wrongValue(option, value, "a DIRECTORY is needed");
    return makeFileRoute(std::move(path), std::move(directory));
  }
  if (option == "--text") {
    auto [path, text] = splitAtEqualsSign(option, value);
    return {RouteOption::Kind::kText, std::move(path), std::move(text), std::nullopt};
  }
  const auto kind =
      option == "--reflect" ? RouteOption::Kind::kReflect : RouteOption::Kind::kInspect;
  return {kind, normalisedPath(option, value), {}, std::nullopt};
}

bool isMethodCharacter(char c) {
  // RFC 9110 §5.6.2
  constexpr std::string_view kPunctuation = "!#$%&'*+-.^_`|~";
  return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') ||
         kPunctuation.find(c) != std::string_view::npos;
}

std::vector<std::string> splitAtCommas(std::string_view list) {
  std::vector<std::string> parts;
  for (size_t begin = 0; begin <= list.size();) {
    const size_t end = std::min(list.find(',', begin), list.size());
    parts.emplace_back(list.substr(begin, end - begin));
    begin = end + 1;
  }
  return parts;
}

std::vector<std::string> parseMethods(const std::string& option_value, std::string_view list) {
  std::vector<std::string> methods = splitAtCommas(list);
  for (const std::string& method : methods) {
    if (method.empty() || !std::all_of(method.begin(), method.end(), isMethodCharacter)) {
      throw wrongValue("--methods", option_value, "method names separated by commas are needed");
    }
  }
  return methods;
}

std::vector<std::string> parseIndexNames(const std::string& list) {
  std::vector<std::string> names = splitAtCommas(list);
  for (const std::string& name : names) {
    if (name.empty() || name.find('/') != std::string::npos) {
      throw wrongValue("--index", list, "file names separated by commas are needed");
    }
  }
  return names;
}

void applyMethods(const std::string& value, std::vector<RouteOption>& routes) {
  const auto [path, list] = splitAtEqualsSign("--methods", value);
  const std::vector<std::string> methods = parseMethods(value, list);
  bool found = false;
  for (RouteOption& route : routes) {
    const bool isFiles = route.kind == RouteOption::Kind::kFiles;
    if (route.path != (isFiles ? withoutTrailingSlashes(path) : path)) continue;
    route.methods = methods;
    found = true;
  }
  if (!found) throw wrongValue("--methods", value, "no route is given for " + path);
}

void refuseWhatComesLater(const CLI::App& app, const RawOptions& raw) {
  for (const char* name : kLaterOptions) {
    if (app.count(name) > 0) throw notAvailable(name);
  }
  if (raw.profile == "standard") throw notAvailable("--profile standard");
}

ServeOptions checkOptions(const CLI::App& app, const RawOptions& raw) {
  refuseWhatComesLater(app, raw);
  if (!raw.profile.empty() && raw.profile != "classic") {
    throw wrongValue("--profile", raw.profile, "there is only the profile classic");
  }
  ServeOptions options;
  parseListen(raw.listen, options);
  if (raw.certificate.empty() != raw.key.empty()) {
    throw WrongOption("--certificate and --key are needed together");
  }
  options.certificateFile = raw.certificate;
  options.keyFile = raw.key;
  if (app.count("--keep-alive") > 0)
    options.keepAlive = parseSeconds("--keep-alive", raw.keep_alive);
  if (app.count("--threads") > 0) {
    options.threads = parseNumber("--threads", raw.threads, 1, kMostThreads);
  }
  options.debug = raw.debug;
  options.quiet = raw.quiet;

  std::map<std::string, size_t> seen;
  for (const CLI::Option* option : app.parse_order()) {
    const std::string name = option->get_name();
    if (std::find(std::begin(kRouteOptions), std::end(kRouteOptions), name) ==
        std::end(kRouteOptions)) {
      continue;
    }
    options.routes.push_back(makeRoute(name, option->results()[seen[name]++]));
  }
  if (app.count("DIRECTORY") > 0) {
    options.routes.push_back(makeFileRoute("/", raw.directory));
  } else if (options.routes.empty()) {
    options.routes.push_back(makeFileRoute("/", "."));
  }
  if (app.count("--index") > 0) options.indexNames = parseIndexNames(raw.index);
  for (const std::string& value : raw.methods) applyMethods(value, options.routes);
  return options;
}

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

std::variant<ServeOptions, Farewell> parseOptions(int argc, const char* const* argv) {
  std::vector<std::string> arguments(argv + (argc > 0 ? 1 : 0), argv + argc);
  if (!arguments.empty() && arguments.front() == "connect") {
    return wrongOption("the command connect is not available yet");
  }
  if (!arguments.empty() && arguments.front() == "serve") arguments.erase(arguments.begin());

  CLI::App app("Serves files and more over HTTP/1.1 from a shell.", "corvane");
  RawOptions raw;
  defineOptions(app, raw);
  try {
    // CLI11 takes the arguments from the back of the list.
    std::reverse(arguments.begin(), arguments.end());
    app.parse(std::move(arguments));
    return checkOptions(app, raw);
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
