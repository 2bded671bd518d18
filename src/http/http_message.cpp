// VELHTTPMessage: the public face of a MessageHead, with the URL that it was made from and a body.
#include "corvane/http_message.h"

#include <typeinfo>
#include <utility>

#include "corvane/error.h"
#include "http/head_parser.h"
#include "http/head_serialiser.h"
#include "http/message_head.h"
#include "platform/object_description.h"

struct VELHTTPMessage::Content {
  vel::MessageHead head;
  vel::HeadParser parser;
  // The URL that a request was built with; its start line holds a part of it.
  std::optional<VELURL> url;
  VELData body;
  // Further bytes of the body, which came after the head.
  std::string received;
};

namespace {

/// What a start line holds of `url`: a server that is asked directly gets path and query.
std::string targetOf(const VELURL& url) {
  vel::RequestTarget parts;
  const std::string& text = url.absoluteString();
  if (!vel::parseRequestTarget(text, &parts) || parts.form != vel::RequestTarget::Form::kAbsolute) {
    return text;
  }
  std::string target(parts.path);
  if (parts.hasQuery) target.append(1, '?').append(parts.query);
  return target;
}

}  // namespace

VELHTTPMessage::VELHTTPMessage() {
  throw VELException(VELInvalidArgumentException,
                     "HTTP messages must be initialized with one of the designated initializers");
}

VELHTTPMessage::VELHTTPMessage(std::unique_ptr<Content> content) : content_(std::move(content)) {}

VELHTTPMessage::VELHTTPMessage(const VELHTTPMessage& other)
    : content_(std::make_unique<Content>(*other.content_)) {}

VELHTTPMessage::VELHTTPMessage(VELHTTPMessage&& other) noexcept = default;

VELHTTPMessage& VELHTTPMessage::operator=(const VELHTTPMessage& other) {
  if (this != &other) content_ = std::make_unique<Content>(*other.content_);
  return *this;
}

VELHTTPMessage& VELHTTPMessage::operator=(VELHTTPMessage&& other) noexcept = default;

VELHTTPMessage::~VELHTTPMessage() = default;

VELHTTPMessage VELHTTPMessage::emptyRequest() {
  return VELHTTPMessage(std::make_unique<Content>());
}

VELHTTPMessage VELHTTPMessage::request(std::string_view method, const VELURL& url,
                                       std::string_view version) {
  auto content = std::make_unique<Content>();
  content->head.setRequest(method, targetOf(url), version);
  content->url = url;
  return VELHTTPMessage(std::move(content));
}

VELHTTPMessage VELHTTPMessage::response(int64_t statusCode,
                                        std::optional<std::string_view> description,
                                        std::string_view version) {
  auto content = std::make_unique<Content>();
  content->head.setResponse(statusCode, description, version);
  return VELHTTPMessage(std::move(content));
}

bool VELHTTPMessage::appendData(std::string_view bytes) {
  size_t consumed = 0;
  const vel::HeadProgress progress = content_->parser.appendData(bytes, &content_->head, &consumed);
  if (progress == vel::HeadProgress::kMalformed) return false;
  content_->received.append(bytes.substr(consumed));
  return true;
}

bool VELHTTPMessage::isHeaderComplete() const { return head().isComplete(); }

bool VELHTTPMessage::isRequest() const { return head().isRequest(); }

std::string_view VELHTTPMessage::version() const { return head().version(); }

std::string_view VELHTTPMessage::method() const { return head().method(); }

std::optional<VELURL> VELHTTPMessage::URL() const {
  if (content_->url) return content_->url;
  if (!head().isRequest() || !head().hasStartLine()) return std::nullopt;
  return VELURL::URLWithRequestTarget(head().target().text);
}

int64_t VELHTTPMessage::statusCode() const { return head().status(); }

VELDictionary VELHTTPMessage::headers() const { return head().headers(); }

std::optional<std::string> VELHTTPMessage::valueForHeaderField(std::string_view name) const {
  return head().valueForField(name);
}

void VELHTTPMessage::setValueForHeaderField(std::string_view value, std::string_view name) {
  head().setField(value, name);
}

VELData VELHTTPMessage::body() const {
  if (content_->received.empty()) return content_->body;
  return VELData(content_->body.string() + content_->received);
}

void VELHTTPMessage::setBody(VELData body) {
  content_->body = std::move(body);
  content_->received.clear();
}

VELData VELHTTPMessage::messageData() const {
  std::string bytes = vel::serialised(head());
  bytes.append(content_->body.view()).append(content_->received);
  return VELData(std::move(bytes));
}

std::string VELHTTPMessage::description() const {
  std::string text = vel::objectDescription(typeid(*this), this);
  if (!isRequest()) return text + " { status=\"" + std::to_string(statusCode()) + "\" }";
  const std::optional<VELURL> url = URL();
  text.append(" { method=\"").append(method()).append("\", URL=\"");
  return text.append(url ? url->absoluteString() : "(null)").append("\" }");
}

const vel::MessageHead& VELHTTPMessage::head() const { return content_->head; }

vel::MessageHead& VELHTTPMessage::head() { return content_->head; }
