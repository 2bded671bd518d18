// Routes about responses: every way in which a body can be delivered, or not be.
#include <deque>
#include <fstream>
#include <map>
#include <utility>

#include "corvane/input_stream.h"
#include "corvane/responses.h"
#include "support/digits_response.h"
#include "support/scripted_response.h"
#include "support/temporary_directory.h"
#include "support/test_server.h"
#include "wire/case_routes.h"

namespace vel::test {
namespace {

/// Claims to be finished with the last piece only if `tells_end`.
std::shared_ptr<VELResponse> chunked(std::deque<std::string> pieces, bool tells_end) {
  auto response = std::make_shared<ScriptedResponse>(std::move(pieces), tells_end);
  response->setChunked(true);
  return response;
}

std::shared_ptr<VELResponse> announced(uint64_t length, std::deque<std::string> pieces) {
  auto response = std::make_shared<ScriptedResponse>(std::move(pieces), false);
  response->setContentLength(length);
  return response;
}

std::shared_ptr<VELResponse> digitsInChunks() {
  auto response = std::make_shared<DigitsResponse>(20);
  response->setChunked(true);
  return response;
}

std::shared_ptr<VELResponse> withoutBody() {
  auto response = std::make_shared<VELResponse>();
  response->setStatus(204);
  return response;
}

std::shared_ptr<VELResponse> stream(bool is_chunked) {
  auto response =
      VELResponse::responseWithStream(VELInputStream::inputStreamWithData("Hello"), 5, 200);
  response->setChunked(is_chunked);
  return response;
}

std::shared_ptr<VELResponse> file(const std::string& path) {
  return VELResponse::responseWithFileURL(VELURL::fileURLWithPath(path), 200, "text/plain");
}

std::shared_ptr<VELResponse> withFields(
    const std::vector<std::pair<std::string, std::string>>& fields) {
  auto response = textResponse("Hello");
  for (const auto& [name, value] : fields) response->setValueForHeader(value, name);
  return response;
}

std::shared_ptr<VELResponse> described(const std::string& description) {
  auto response = textResponse("Hello");
  response->setStatusDescription(description);
  return response;
}

std::string fileOfDigits() {
  static const TemporaryDirectory directory;
  const std::string path = directory.path("digits");
  std::ofstream(path, std::ios::binary) << digits(0, 600'000);
  return path;
}

using Maker = std::function<std::shared_ptr<VELResponse>()>;

const std::map<std::string, Maker>& makers() {
  static const std::map<std::string, Maker> map = {
      {"bad-request", [] { return std::make_shared<VELBadRequestResponse>(); }},
      {"chunked",
       [] {
         return chunked({"Hello, ", "all of", " you"}, true);
       }},
      {"chunked-cut", [] { return chunked({"Hello"}, false); }},
      {"chunked-nothing", [] { return chunked({}, false); }},
      {"chunked-ten", [] { return chunked({"0123456789"}, true); }},
      {"cut",
       [] {
         return announced(10, {"abc", "d"});
       }},
      {"data-empty", [] { return textResponse(""); }},
      {"data-large", [] { return textResponse(std::string(1'000'000, 'd')); }},
      {"description-injected", [] { return described("Fine\r\nX-Injected: b"); }},
      {"digits", [] { return std::make_shared<DigitsResponse>(20); }},
      {"digits-chunked", digitsInChunks},
      {"digits-file", [] { return file(fileOfDigits()); }},
      {"digits-moving", [] { return std::make_shared<DigitsResponse>(20, true); }},
      {"fields",
       [] {
         return withFields({{"Accept-Ranges", "none"}, {"Date", "then"}, {"X-A", "b"}});
       }},
      {"file-10", [] { return file(fileOfLength(10)); }},
      {"file-524288", [] { return file(fileOfLength(524'288)); }},
      {"file-600000", [] { return file(fileOfLength(600'000)); }},
      {"file-missing", [] { return file("/nowhere/to/be/found"); }},
      {"injected",
       [] {
         return withFields({{"X-A", std::string("a\r\nX-Injected: b\0c", 18)}});
       }},
      {"length",
       [] {
         return withFields({{"Content-Length", "7"}});
       }},
      {"plain", withoutBody},
      {"stream", [] { return stream(false); }},
      {"stream-chunked", [] { return stream(true); }},
      {"unfinished", [] { return announced(5, {"Hello"}); }},
  };
  return map;
}

}  // namespace

std::string fileOfLength(size_t length) {
  static const TemporaryDirectory directory;
  const std::string path = directory.path(std::to_string(length));
  std::ofstream(path, std::ios::binary) << std::string(length, 'f');
  return path;
}

void addResponseRoutes(VELConfiguration& configuration) {
  const std::string prefix = "/responses/";
  configuration.addRoute(
      blockRoute(prefix, [prefix](VELRoute&, const std::shared_ptr<VELRequest>& request,
                                  const VELResponseHandler& respond) {
        respond(makers().at(request->path().substr(prefix.size()))());
      }));
}

}  // namespace vel::test
