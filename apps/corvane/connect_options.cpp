// The command line of `corvane connect`.
#include <algorithm>
#include <cctype>
#include <string_view>
#include <utility>

#include "corvane/url.h"
#include "option_parsing.h"

namespace {

std::string lowercased(std::string text) {
  for (char& c : text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return text;
}

// The library would open a plain connection for these as well. Who types them means a secure one.
void refuseWhatWouldNotBeSecure(const std::string& url, const std::string& scheme) {
  if (scheme != "wss" && scheme != "https") return;
  throw WrongOption(url +
                    ": connecting over TLS is not available, only ws:// and http:// URLs are");
}

void checkURL(const std::string& text) {
  const auto url = VELURL::URLWithString(text);
  const std::string scheme = url ? lowercased(url->scheme()) : "";
  refuseWhatWouldNotBeSecure(text, scheme);
  if ((scheme != "ws" && scheme != "http") || url->host().empty()) {
    throw WrongOption((text.empty() ? "\"\"" : text) +
                      ": a URL like ws://HOST[:PORT]/PATH is needed");
  }
}

std::pair<std::string, std::string> parseHeader(const std::string& text) {
  const size_t colon = text.find(':');
  const std::string name = text.substr(0, colon);
  const size_t begin =
      colon == std::string::npos ? colon : text.find_first_not_of(" \t", colon + 1);
  std::string value = begin == std::string::npos ? "" : text.substr(begin);
  const auto isControl = [](unsigned char c) { return std::iscntrl(c) != 0 && c != '\t'; };
  if (colon == std::string::npos || !isToken(name) ||
      std::any_of(value.begin(), value.end(), isControl)) {
    throw wrongValue("--header", text, "a field like 'Name: value' is needed");
  }
  return {name, std::move(value)};
}

}  // namespace

Command parseConnectOptions(std::vector<std::string> arguments) {
  ConnectOptions options;
  std::vector<std::string> headers;
  std::string profile;

  CLI::App app(
      "Opens a WebSocket: each line of standard input is sent as a text message, each message\n"
      "that comes is printed, and the end is told on standard error. The end of the input closes\n"
      "the session: what would have come afterwards is not printed. The connection is not\n"
      "encrypted: URLs of the schemes wss and https are refused.",
      "corvane connect");
  setUsage(app, "Usage: corvane connect [OPTIONS] URL\n");
  app.add_option("URL", options.url, "where to connect, ws://HOST[:PORT]/PATH")
      ->type_name("")
      ->required();
  addRepeatable(app, "--protocol", options.protocols, "offer the subprotocol NAME", "NAME");
  addRepeatable(app, "--header", headers, "send this field with the request", "'NAME: VALUE'");
  addValue(app, "--profile", profile, "the behaviour profile: classic", "NAME");
  return parseWith(app, std::move(arguments), [&]() -> Command {
    checkProfile(profile);
    checkURL(options.url);
    for (const std::string& protocol : options.protocols) {
      if (!isToken(protocol)) throw wrongValue("--protocol", protocol, "one NAME is needed");
    }
    for (const std::string& header : headers) options.headers.push_back(parseHeader(header));
    return options;
  });
}
