// VELRequest: values that a host set, or else those of the received head, made when first asked for.
#include "corvane/request.h"

#include <typeinfo>
#include <utility>

#include "corvane/connection.h"
#include "http/request_access.h"
#include "platform/ascii.h"
#include "platform/file.h"
#include "platform/object_description.h"
#include "platform/url_query.h"

namespace vel {
namespace {

/// Form content is announced by exactly this type, without parameters; no type counts as form content.
bool isFormContent(std::string_view contentType) {
  return contentType.empty() ||
         equalsIgnoringCase(contentType, "application/x-www-form-urlencoded");
}

RequestState::Values& valuesOf(RequestState& state) {
  if (!state.values) state.values = std::make_unique<RequestState::Values>();
  return *state.values;
}

std::optional<VELURL> receivedURL(const MessageHead& head) {
  if (!head.hasStartLine()) return std::nullopt;
  return VELURL::URLWithRequestTarget(head.target().text);
}

}  // namespace
}  // namespace vel

using Lock = std::lock_guard<std::mutex>;

VELRequest::VELRequest() : VELRequest(std::nullopt) {}

VELRequest::VELRequest(std::optional<VELUUID> identifier)
    : owned_(std::make_unique<vel::RequestState>()), state_(owned_.get()) {
  if (identifier) setIdentifier(*identifier);
}

VELRequest::VELRequest(vel::RequestState& state) noexcept : state_(&state) {}

VELRequest::~VELRequest() = default;

const VELDictionary& VELRequest::headers() const {
  const Lock lock(state_->mutex);
  std::optional<VELDictionary>& headers = vel::valuesOf(*state_).headers;
  if (!headers) headers = state_->head.headers();
  return *headers;
}

void VELRequest::setHeaders(VELDictionary headers) {
  const Lock lock(state_->mutex);
  vel::valuesOf(*state_).headers = std::move(headers);
  state_->headers_are_set = true;
}

VELUUID VELRequest::identifier() const {
  const Lock lock(state_->mutex);
  if (!state_->has_identifier) {
    state_->identifier = VELUUID::UUID();
    state_->has_identifier = true;
  }
  return state_->identifier;
}

void VELRequest::setIdentifier(VELUUID identifier) {
  const Lock lock(state_->mutex);
  state_->identifier = identifier;
  state_->has_identifier = true;
}

std::optional<VELURL> VELRequest::URL() const {
  const Lock lock(state_->mutex);
  std::optional<VELURL>& url = vel::valuesOf(*state_).url;
  if (!url && !state_->url_is_set) url = vel::receivedURL(state_->head);
  return url;
}

void VELRequest::setURL(std::optional<VELURL> URL) {
  const Lock lock(state_->mutex);
  vel::valuesOf(*state_).url = std::move(URL);
  state_->url_is_set = true;
}

std::string VELRequest::method() const {
  return state_->method_is_set ? state_->values->method : std::string(state_->head.method());
}

void VELRequest::setMethod(std::string method) {
  const Lock lock(state_->mutex);
  vel::valuesOf(*state_).method = std::move(method);
  state_->method_is_set = true;
}

unsigned VELRequest::encoding() const { return state_->encoding; }

void VELRequest::setEncoding(unsigned encoding) { state_->encoding = encoding; }

std::optional<VELTextCheckingResult> VELRequest::textCheckingResult() const {
  const Lock lock(state_->mutex);
  return state_->match;
}

void VELRequest::setTextCheckingResult(std::optional<VELTextCheckingResult> textCheckingResult) {
  const Lock lock(state_->mutex);
  state_->match = std::move(textCheckingResult);
}

const VELDictionary& VELRequest::GETParameters() const {
  const Lock lock(state_->mutex);
  std::optional<VELDictionary>& parameters = vel::valuesOf(*state_).get_parameters;
  if (!parameters) parameters = vel::dictionaryWithURLQuery(state_->head.target().query);
  return *parameters;
}

void VELRequest::setGETParameters(VELDictionary GETParameters) {
  const Lock lock(state_->mutex);
  vel::valuesOf(*state_).get_parameters = std::move(GETParameters);
}

// The form is decoded before the body is there, so nothing is in it. It is meant: a route decides
// whether a body, which may be large, is a form.
std::optional<VELDictionary> VELRequest::POSTParameters() const {
  if (state_->post_parameters_are_set) return state_->values->post_parameters;
  const vel::MessageHead& head = state_->head;
  if (!head.hasStartLine()) return std::nullopt;
  const auto contentType = head.field(vel::KnownField::kContentType);
  if (!vel::isFormContent(contentType.value_or(""))) return std::nullopt;
  return VELDictionary();
}

void VELRequest::setPOSTParameters(std::optional<VELDictionary> POSTParameters) {
  const Lock lock(state_->mutex);
  vel::valuesOf(*state_).post_parameters = std::move(POSTParameters);
  state_->post_parameters_are_set = true;
}

uint64_t VELRequest::contentLength() const { return state_->content_length; }

void VELRequest::setContentLength(uint64_t contentLength) {
  state_->content_length = contentLength;
}

std::optional<VELURL> VELRequest::bodyFileURL() const { return state_->body_file_url; }

void VELRequest::setBodyFileURL(std::optional<VELURL> bodyFileURL) {
  state_->body_file_url = std::move(bodyFileURL);
}

std::optional<VELData> VELRequest::bodyData() const { return state_->body_data; }

void VELRequest::setBodyData(std::optional<VELData> bodyData) {
  state_->body_data = std::move(bodyData);
}

std::shared_ptr<VELConnection> VELRequest::connection() const { return state_->connection.lock(); }

void VELRequest::setConnection(std::weak_ptr<VELConnection> connection) {
  state_->connection = std::move(connection);
}

std::string VELRequest::path() const {
  if (state_->url_is_set) {
    const std::optional<VELURL> url = URL();
    return url ? url->path() : std::string();
  }
  std::string scratch;
  const std::string_view path = state_->head.path(&scratch);
  return std::string(path);
}

bool VELRequest::isSecure() const {
  if (!state_->url_is_set) {
    return vel::equalsIgnoringCase(state_->head.target().scheme, "https");
  }
  const std::optional<VELURL> url = URL();
  return url && vel::equalsIgnoringCase(url->scheme(), "https");
}

std::optional<std::string> VELRequest::contentType() const {
  return valueForHeader("Content-Type");
}

std::optional<VELData> VELRequest::body() const {
  if (state_->body_data) return state_->body_data;
  if (!state_->body_file_url) return std::nullopt;
  std::optional<std::string> bytes = vel::readWholeFile(state_->body_file_url->filePath());
  if (!bytes) return std::nullopt;
  return VELData(std::move(*bytes));
}

std::optional<std::string> VELRequest::valueForHeader(std::string_view name) const {
  if (!state_->headers_are_set) return state_->head.valueForField(name);
  const VELDictionary& fields = headers();
  const auto at = fields.find(vel::uppercased(name));
  if (at == fields.end()) return std::nullopt;
  return at->second;
}

std::string VELRequest::description() const {
  const std::optional<VELURL> url = URL();
  // The class of a received request is nobody's business.
  std::string text = vel::objectDescription(owned_ ? typeid(*this) : typeid(VELRequest), this);
  text.append(" { method=\"").append(method()).append("\", URL=\"");
  return text.append(url ? url->absoluteString() : "(null)").append("\" }");
}
