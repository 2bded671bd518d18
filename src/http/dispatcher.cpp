#include "http/dispatcher.h"

#include <exception>
#include <string>
#include <string_view>
#include <utility>

#include "corvane/responses.h"
#include "http/habits.h"
#include "http/head_serialiser.h"
#include "platform/log.h"

namespace vel {

namespace {

std::string joined(const VELMethodList& methods) {
  std::string text;
  if (!methods) return text;
  for (const std::string& method : *methods) {
    if (!text.empty()) text += ", ";
    text += method;
  }
  return text;
}

std::shared_ptr<VELResponse> optionsAnswer(const VELMethodList& allowedMethods) {
  auto response = std::make_shared<VELResponse>();
  response->setStatus(204);
  response->setValueForHeader("0", "Content-Length");
  response->setValueForHeader(joined(allowedMethods), "Allow");
  return response;
}

std::shared_ptr<VELResponse> traceAnswer(const MessageHead& head) {
  return VELResponse::responseWithData(VELData(serialised(head)), 200, "message/http");
}

std::shared_ptr<VELResponse> askMiddlewares(Exchange& exchange) {
  for (const std::shared_ptr<VELMiddleware>& middleware : exchange.configuration->middlewares) {
    ++exchange.middlewares_asked;
    std::shared_ptr<VELResponse> response =
        middleware->evaluateRequest(*exchange.request, *exchange.route);
    if (response) return response;
  }
  return nullptr;
}

void logException(const char* what) noexcept {
  try {
    logLine(std::string("Uncaught exception raised during request processing: ").append(what));
  } catch (...) {
    logLine("Uncaught exception raised during request processing");
  }
}

}  // namespace

std::shared_ptr<VELResponse> answerInPlaceOfRoute(Exchange& exchange) {
  const MessageHead& head = std::as_const(*exchange.request).head();
  const std::string_view method = head.method();
  const VELMethodList allowedMethods = exchange.route->allowedHTTPMethods();
  if (answersWithoutRoute(method, allowedMethods)) {
    return method == "OPTIONS" ? optionsAnswer(allowedMethods) : traceAnswer(head);
  }
  std::shared_ptr<VELResponse> response = askMiddlewares(exchange);
  if (!response && !allowsMethod(method, allowedMethods)) {
    response = std::make_shared<VELMethodNotSupportedResponse>();
  }
  return response;
}

void evaluateRoute(VELRoute& route, std::shared_ptr<VELRequest> request,
                   VELResponseHandler handler) {
  try {
    route.evaluateWithRequest(std::move(request), std::move(handler));
  } catch (const std::exception& exception) {
    logException(exception.what());
    throw;
  } catch (...) {
    logException("no standard exception");
    throw;
  }
}

std::shared_ptr<VELResponse> passedThroughMiddlewares(Exchange& exchange,
                                                      std::shared_ptr<VELResponse> response,
                                                      const std::optional<VELError>& error) {
  const VELConfiguration::Middlewares& middlewares = exchange.configuration->middlewares;
  for (; exchange.middlewares_asked > 0; --exchange.middlewares_asked) {
    VELMiddleware& middleware = *middlewares[exchange.middlewares_asked - 1];
    if (response) {
      response = middleware.evaluateResponse(std::move(response), *exchange.request);
    } else if (error) {
      response = middleware.evaluateError(*error, *exchange.request);
    }
  }
  return response;
}

}  // namespace vel
