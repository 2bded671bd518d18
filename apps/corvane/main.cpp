// The command line program: reads its options and runs the command that they ask for.
#include <cstdio>
#include <exception>
#include <variant>

#include "connect.h"
#include "options.h"
#include "serve.h"
#include "standard_error.h"

int main(int argc, char** argv) {
  blockEndingSignals();
  try {
    const auto options = parseOptions(argc, argv);
    if (const auto* farewell = std::get_if<Farewell>(&options)) {
      std::fputs(farewell->text.c_str(), farewell->exitCode == 0 ? stdout : stderr);
      return farewell->exitCode;
    }
    if (const auto* target = std::get_if<ConnectOptions>(&options)) return connect(*target);
    return serve(std::get<ServeOptions>(options));
  } catch (const std::exception& exception) {
    writeLineToStandardError(std::string("corvane: ") + exception.what());
    return kCannotStart;
  }
}
