// Reading the command line with CLI11. Route options keep their order across different options, which
// is the order in which the routes are tried.
#include "options.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <charconv>
#include <cmath>
#include <map>
#include <string_view>
#include <utility>

#include "corvane/url.h"
#include "corvane/version.h"
#include "option_parsing.h"

namespace {

constexpr double kLongestKeepAlive = 1e9;
constexpr size_t kMostThreads = 1024;

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
  std::vector<std::string> proxies;
  std::vector<std::string> echoes;
  std::string index;
  std::vector<std::string> methods;
  std::vector<std::string> auths;
  std::string realm;
  std::string directory;
  bool debug = false;
  bool quiet = false;
};

constexpr std::string_view kRouteOptions[] = {"--text",  "--reflect", "--inspect",
                                              "--files", "--proxy",   "--echo"};

void defineOptions(CLI::App& app, RawOptions& raw) {
  setUsage(app,
           "Usage: corvane [serve] [OPTIONS] [DIRECTORY]\n"
           "       corvane connect [OPTIONS] URL\n");
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
  addRepeatable(app, "--proxy", raw.proxies, "have the server at URL answer what comes under PATH",
                "PATH=URL");
  addRepeatable(app, "--text", raw.texts, "answer with TEXT under PATH", "PATH=TEXT");
  addRepeatable(app, "--reflect", raw.reflects, "answer with the request's body", "PATH");
  addRepeatable(app, "--inspect", raw.inspects, "answer with a description of the request in JSON",
                "PATH");
  addRepeatable(app, "--echo", raw.echoes, "a WebSocket that sends each message back", "PATH");
  addRepeatable(app, "--methods", raw.methods, "the allowed methods of the route given for PATH",
                "PATH=M[,M...]");
  addRepeatable(app, "--auth", raw.auths,
                "ask for a user and a password on the route given for PATH; once for each user",
                "PATH=USER:PASSWORD");
  addValue(app, "--realm", raw.realm, "what the password is asked for (default: not told)", "TEXT");
  addValue(app, "--profile", raw.profile, "the behaviour profile: classic", "NAME");
  app.add_flag("--debug", raw.debug, "log what happens on each connection");
  app.add_flag("--quiet", raw.quiet, "write no access lines");
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
  return {RouteOption::Kind::kFiles, withoutTrailingSlashes(std::move(path)), std::move(directory)};
}

bool isProxyURL(const std::string& text) {
  const std::optional<VELURL> url = VELURL::URLWithString(text);
  return url && !url->host().empty() && (url->scheme() == "http" || url->scheme() == "https");
}

RouteOption makeRoute(const std::string& option, const std::string& value) {
  if (option == "--files") {
    auto [path, directory] = splitAtEqualsSign(option, value);
    if (directory.empty()) throw wrongValue(option, value, "a DIRECTORY is needed");
    return makeFileRoute(std::move(path), std::move(directory));
  }
  if (option == "--proxy") {
    auto [path, url] = splitAtEqualsSign(option, value);
    if (!isProxyURL(url)) throw wrongValue(option, url, "an http or https URL is needed");
    return {RouteOption::Kind::kProxy, withoutTrailingSlashes(std::move(path)), std::move(url)};
  }
  if (option == "--text") {
    auto [path, text] = splitAtEqualsSign(option, value);
    return {RouteOption::Kind::kText, std::move(path), std::move(text)};
  }
  const auto kind = option == "--reflect" ? RouteOption::Kind::kReflect
                    : option == "--echo"  ? RouteOption::Kind::kEcho
                                          : RouteOption::Kind::kInspect;
  return {kind, normalisedPath(option, value), {}};
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
    if (!isToken(method)) {
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

std::vector<RouteOption*> routesGivenFor(const std::string& path,
                                         std::vector<RouteOption>& routes) {
  std::vector<RouteOption*> given;
  for (RouteOption& route : routes) {
    const bool isTree =
        route.kind == RouteOption::Kind::kFiles || route.kind == RouteOption::Kind::kProxy;
    if (route.path == (isTree ? withoutTrailingSlashes(path) : path)) given.push_back(&route);
  }
  return given;
}

void applyMethods(const std::string& value, std::vector<RouteOption>& routes) {
  const auto [path, list] = splitAtEqualsSign("--methods", value);
  const std::vector<std::string> methods = parseMethods(value, list);
  const std::vector<RouteOption*> given = routesGivenFor(path, routes);
  if (given.empty()) throw wrongValue("--methods", value, "no route is given for " + path);
  for (RouteOption* route : given) route->methods = methods;
}

// No sentence repeats what may be a part of the password: sentences end up in logs.
void applyUser(std::string_view value, std::vector<RouteOption>& routes) {
  const size_t equals = std::min(value.find('='), value.size());
  const size_t colon = value.find(':', equals);
  if (equals == 0 || colon == std::string_view::npos) {
    throw WrongOption("--auth needs PATH=USER:PASSWORD");
  }
  const std::string path = normalisedPath("--auth", value.substr(0, equals));
  const std::vector<RouteOption*> given = routesGivenFor(path, routes);
  if (given.empty()) {
    // What has a colon may be USER:PASSWORD, with the PATH forgotten.
    const bool isPath = path.find(':') == std::string::npos;
    throw WrongOption("--auth: no route is given for " + (isPath ? path : "its PATH"));
  }
  for (RouteOption* route : given) {
    route->users.push_back({std::string(value.substr(equals + 1, colon - equals - 1)),
                            std::string(value.substr(colon + 1))});
  }
}

ServeOptions checkOptions(const CLI::App& app, const RawOptions& raw) {
  checkProfile(raw.profile);
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
  for (const std::string& value : raw.auths) applyUser(value, options.routes);
  if (app.count("--realm") > 0) options.realm = raw.realm;
  return options;
}

}  // namespace

Command parseOptions(int argc, const char* const* argv) {
  std::vector<std::string> arguments(argv + (argc > 0 ? 1 : 0), argv + argc);
  const std::string command = arguments.empty() ? "" : arguments.front();
  if (command == "connect" || command == "serve") arguments.erase(arguments.begin());
  if (command == "connect") return parseConnectOptions(std::move(arguments));

  CLI::App app("Serves files and more over HTTP/1.1 from a shell, and connects to WebSockets.",
               "corvane");
  RawOptions raw;
  defineOptions(app, raw);
  return parseWith(app, std::move(arguments), [&] { return checkOptions(app, raw); });
}
