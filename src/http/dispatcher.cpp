#include "http/dispatcher.h"

#include <exception>
#include <string>
#include <string_view>
#include <utility>

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

std::shared_ptr<VELResponse> answerInPlaceOfRoute(Exchange& exchange,
                                                  const VELMethodList& allowedMethods) {
  const MessageHead& head = std::as_const(*exchange.request).head();
  const std::string_view method = head.method();
  if (answersWithoutRoute(method, allowedMethods)) {
    return method == "OPTIONS" ? optionsAnswer(allowedMethods) : traceAnswer(head);
  }
  return askMiddlewares(exchange);
}

void logUncaughtException(const std::exception_ptr& exception) noexcept {
  try {
    std::rethrow_exception(exception);
  } catch (const std::exception& standard) {
    logException(standard.what());
  } catch (...) {
    logException("no standard exception");
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
