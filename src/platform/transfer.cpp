#include "platform/transfer.h"

#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <utility>

#include "platform/ascii.h"
#include "platform/client_session.h"
#include "platform/redirect.h"

namespace vel {
namespace {

constexpr int kMostRedirects = 20;
// All heads of an answer together, those before the last one too.
constexpr size_t kMostHead = 256 * 1024;
// Room made for a body before its first byte, however much was announced.
constexpr curl_off_t kMostRoomAhead = 1024 * 1024;

// Set from the body that is sent, so that nobody can contradict it; nor is a go-ahead waited for.
bool isOfFraming(std::string_view field) {
  return equalsIgnoringCase(field, "Content-Length") ||
         equalsIgnoringCase(field, "Transfer-Encoding") || equalsIgnoringCase(field, "Expect");
}

// Whether servers expect a body with the method, so that its absence is told (RFC 9110 §8.6).
bool announcesBody(std::string_view method) {
  return method == "POST" || method == "PUT" || method == "PATCH";
}

bool hasToken(std::string_view list, std::string_view token) {
  bool is_found = false;
  forEachListItem(list,
                  [&](std::string_view item) { is_found |= equalsIgnoringCase(item, token); });
  return is_found;
}

struct ErrorOfCode {
  CURLcode from;
  VELURLErrorCode to;
  const char* description;
};
constexpr auto kErrors = std::to_array<ErrorOfCode>({
    {CURLE_URL_MALFORMAT, kVELURLErrorBadURL, "The location is malformed."},
    {CURLE_UNSUPPORTED_PROTOCOL, kVELURLErrorCannotParseResponse,
     "The server does not speak HTTP."},
    {CURLE_WEIRD_SERVER_REPLY, kVELURLErrorCannotParseResponse, "The server does not speak HTTP."},
    {CURLE_COULDNT_RESOLVE_HOST, kVELURLErrorCannotFindHost, "The server could not be found."},
    {CURLE_COULDNT_CONNECT, kVELURLErrorCannotConnectToHost, "Could not connect to the server."},
    {CURLE_OPERATION_TIMEDOUT, kVELURLErrorTimedOut, "The request timed out."},
    {CURLE_PARTIAL_FILE, kVELURLErrorNetworkConnectionLost, "The connection was lost."},
    {CURLE_GOT_NOTHING, kVELURLErrorNetworkConnectionLost, "The connection was lost."},
    {CURLE_SEND_ERROR, kVELURLErrorNetworkConnectionLost, "The connection was lost."},
    {CURLE_RECV_ERROR, kVELURLErrorNetworkConnectionLost, "The connection was lost."},
    {CURLE_BAD_CONTENT_ENCODING, kVELURLErrorCannotDecodeContentData,
     "The content could not be decoded."},
    {CURLE_ABORTED_BY_CALLBACK, kVELURLErrorRequestBodyStreamExhausted,
     "The body of the request could not be read."},
    {CURLE_SSL_CONNECT_ERROR, kVELURLErrorSecureConnectionFailed,
     "A secure connection could not be made."},
    {CURLE_PEER_FAILED_VERIFICATION, kVELURLErrorServerCertificateUntrusted,
     "The server's certificate is not trusted."},
});

}  // namespace

bool prepareForLookUps(CURL* handle) noexcept {
  curl_easy_setopt(handle, CURLOPT_NOSIGNAL, 1L);
#if LIBCURL_VERSION_NUM >= 0x075700
  // Else the end of a handle waits for the end of its look-up.
  curl_easy_setopt(handle, CURLOPT_QUICK_EXIT, 1L);
#endif
  return curl_easy_setopt(handle, CURLOPT_PROXY, "") == CURLE_OK;
}

Transfer::Transfer(std::weak_ptr<ClientSession> session, std::shared_ptr<VELSerialQueue> queue,
                   VELURLRequest request, std::shared_ptr<VELProgress> progress,
                   TransferCompletion completion)
    : session_(std::move(session)),
      queue_(std::move(queue)),
      request_(std::move(request)),
      progress_(std::move(progress)),
      completion_(std::move(completion)) {}

Transfer::~Transfer() { Deadline::remove(); }

template <class Value>
void Transfer::set(CURLoption option, Value value) {
  if (curl_easy_setopt(handle_.get(), option, value) != CURLE_OK) is_prepared_ = false;
}

bool Transfer::prepare(CurlHandle handle) {
  handle_ = std::move(handle);
  if (!handle_) return false;
  is_prepared_ = prepareForLookUps(handle_.get());
  head_length_ = 0;
  head_is_complete_ = false;
  body_has_begun_ = false;
  fields_.clear();
  data_.clear();
  error_text_[0] = '\0';
  set(CURLOPT_PRIVATE, this);
  set(CURLOPT_URL, request_.URL().absoluteString().c_str());
  set(CURLOPT_PATH_AS_IS, 1L);
  set(CURLOPT_PROTOCOLS_STR, "http,https");
  set(CURLOPT_HTTP_VERSION, long{CURL_HTTP_VERSION_1_1});
  set(CURLOPT_ACCEPT_ENCODING, "");
  set(CURLOPT_ERRORBUFFER, error_text_);
  set(CURLOPT_HEADERFUNCTION, &Transfer::headLineCallback);
  set(CURLOPT_HEADERDATA, this);
  set(CURLOPT_WRITEFUNCTION, &Transfer::bodyCallback);
  set(CURLOPT_WRITEDATA, this);
  set(CURLOPT_OPENSOCKETFUNCTION, &Transfer::socketCallback);
  setFields();
  setBody();
  return is_prepared_;
}

void Transfer::setFields() {
  curl_slist* list = nullptr;
  const auto add = [&](const std::string& line) {
    curl_slist* longer = curl_slist_append(list, line.c_str());
    if (longer == nullptr) is_prepared_ = false;
    if (longer != nullptr) list = longer;
  };
  add("Expect:");
  for (const auto& [field, value] : request_.allHTTPHeaderFields()) {
    if (isOfFraming(field)) continue;
    // The semicolon stands for a field with an empty value.
    add(value.empty() ? field + ";" : field + ": " + value);
  }
  field_list_.reset(list);
  set(CURLOPT_HTTPHEADER, list);
  const auto connection = request_.valueForHTTPHeaderField("Connection");
  const bool closes = connection && hasToken(*connection, "close");
  set(CURLOPT_FRESH_CONNECT, closes ? 1L : 0L);
  set(CURLOPT_FORBID_REUSE, closes ? 1L : 0L);
}

void Transfer::setBody() {
  const std::string& method = request_.method();
  if (method == "HEAD") return set(CURLOPT_NOBODY, 1L);
  set(CURLOPT_CUSTOMREQUEST, method.c_str());
  if (!body_) body_ = std::make_unique<UploadBody>(request_);
  if (!body_->exists() && !announcesBody(method)) return;
  const auto length = body_->length();
  set(CURLOPT_UPLOAD, 1L);
  set(CURLOPT_INFILESIZE_LARGE, length ? static_cast<curl_off_t>(*length) : curl_off_t{-1});
  set(CURLOPT_READFUNCTION, &Transfer::readCallback);
  set(CURLOPT_READDATA, this);
  set(CURLOPT_SEEKFUNCTION, &Transfer::seekCallback);
  set(CURLOPT_SEEKDATA, this);
}

void Transfer::touch() {
  const auto silence = request_.timeoutInterval();
  if (silence.count() >= 0) arm(*queue_, silence);
}

void Transfer::deadlineDidFire() {
  const std::shared_ptr<ClientSession> session = session_.lock();
  if (session) session->fail(*this, errorOf(CURLE_OPERATION_TIMEDOUT));
}

void Transfer::deadlineWillNeverFire() noexcept {
  if (const std::shared_ptr<ClientSession> session = session_.lock()) session->loopDidStop();
}

uint64_t Transfer::status() const noexcept {
  long status = 0;
  curl_easy_getinfo(handle_.get(), CURLINFO_RESPONSE_CODE, &status);
  return static_cast<uint64_t>(status);
}

bool Transfer::isRedirected() const {
  return redirects(status()) && fields_.find("Location") != fields_.end();
}

VELError Transfer::errorOf(CURLcode code) const {
  // A single line of 100 KiB is too much for libcurl, which says that memory is.
  const bool has_long_line = code == CURLE_OUT_OF_MEMORY && head_length_ > 0 && !head_is_complete_;
  if (has_long_line || (code == CURLE_WRITE_ERROR && head_length_ > kMostHead)) {
    return VELError(VELURLErrorDomain, kVELURLErrorDataLengthExceedsMaximum,
                    "The head of the answer is too long.");
  }
  if (code == CURLE_WRITE_ERROR && switches_protocols_) {
    return VELError(VELURLErrorDomain, kVELURLErrorBadServerResponse,
                    "The server switched protocols without being asked to.");
  }
  const auto* found = std::find_if(kErrors.begin(), kErrors.end(),
                                   [code](const ErrorOfCode& row) { return row.from == code; });
  VELError error = found != kErrors.end()
                       ? VELError(VELURLErrorDomain, found->to, found->description)
                       : VELError(VELURLErrorDomain, kVELURLErrorUnknown, "The request failed.");
  // For whoever runs the program, not for clients: it may name hosts.
  const char* detail = error_text_[0] != '\0' ? error_text_ : curl_easy_strerror(code);
  error.setUserInfo({{VELErrorDetailKey, detail}});
  return error;
}

TransferResult Transfer::resultOf(CURLcode code) {
  TransferResult result;
  if (code == CURLE_OK && !head_is_complete_) code = CURLE_PARTIAL_FILE;
  if (code == CURLE_OK) {
    result.data = VELData(std::move(data_));
    result.response = std::make_shared<VELHTTPURLResponse>(request_.URL(), status(), fields_);
    return result;
  }
  result.error = errorOf(code);
  if (result.error->code() == kVELURLErrorCannotParseResponse) {
    result.response = std::make_shared<VELURLResponse>(request_.URL());
  }
  return result;
}

bool Transfer::followRedirect(std::optional<VELError>* error) {
  if (!isRedirected()) return false;
  char* resolved = nullptr;
  curl_easy_getinfo(handle_.get(), CURLINFO_REDIRECT_URL, &resolved);
  const auto location = resolved ? VELURL::URLWithString(resolved) : std::nullopt;
  if (!location) {
    *error = errorOf(CURLE_URL_MALFORMAT);
  } else if (++redirects_ > kMostRedirects) {
    *error = VELError(VELURLErrorDomain, kVELURLErrorTooManyRedirects,
                      "The server redirected too often.");
  } else {
    redirect(&request_, status(), *location);
    const bool is_sent_again = request_.body() || request_.bodyStream();
    if (!is_sent_again) body_ = nullptr;
    if (body_ && !body_->rewind()) *error = errorOf(CURLE_ABORTED_BY_CALLBACK);
  }
  return true;
}

void Transfer::complete(TransferResult result) {
  Deadline::remove();
  // Work of its own: what it throws must not leave other transfers half served.
  if (!completion_) return;
  queue_->async([completion = std::exchange(completion_, nullptr), result = std::move(result)] {
    completion(result);
  });
}

size_t Transfer::didReceiveHeadLine(std::string_view line) {
  touch();
  head_length_ += line.size();
  if (head_length_ > kMostHead) return 0;
  if (head_is_complete_) return line.size();  // a trailer
  const bool is_end = line == "\r\n" || line == "\n";
  switches_protocols_ = is_end && status() == 101;
  if (switches_protocols_) return 0;
  head_is_complete_ = is_end && status() >= 200;
  // The head takes the place of those before it, which were interim.
  if (line.starts_with("HTTP/")) fields_.clear();
  const size_t colon = line.find(':');
  if (colon == std::string_view::npos || line.starts_with("HTTP/")) return line.size();
  std::string value(trimmed(line.substr(colon + 1, line.find_last_not_of("\r\n") - colon)));
  // What could end a line of our own answer, or hide in one (RFC 9110 §5.5).
  std::replace_if(
      value.begin(), value.end(), [](char c) { return isControl(c) && c != '\t'; }, ' ');
  const auto [entry, is_new] = fields_.emplace(line.substr(0, colon), value);
  if (!is_new) entry->second.append(", ").append(value);
  return line.size();
}

size_t Transfer::didReceiveBody(std::string_view bytes) {
  touch();
  if (isRedirected()) return bytes.size();
  if (!std::exchange(body_has_begun_, true)) {
    curl_off_t announced = -1;
    curl_easy_getinfo(handle_.get(), CURLINFO_CONTENT_LENGTH_DOWNLOAD_T, &announced);
    if (announced > 0) data_.reserve(static_cast<size_t>(std::min(announced, kMostRoomAhead)));
  }
  data_.append(bytes);
  return bytes.size();
}

size_t Transfer::readBody(char* buffer, size_t capacity) {
  touch();
  const ptrdiff_t count = body_->read(buffer, capacity);
  return count < 0 ? CURL_READFUNC_ABORT : static_cast<size_t>(count);
}

template <class Call>
size_t Transfer::guarded(size_t failure, Call&& call) noexcept {
  try {
    return call();
  } catch (...) {
    return failure;
  }
}

size_t Transfer::headLineCallback(char* bytes, size_t, size_t length, void* transfer) noexcept {
  return guarded(0, [&] {
    return static_cast<Transfer*>(transfer)->didReceiveHeadLine({bytes, length});
  });
}

size_t Transfer::bodyCallback(char* bytes, size_t, size_t length, void* transfer) noexcept {
  return guarded(0, [&] {
    return static_cast<Transfer*>(transfer)->didReceiveBody({bytes, length});
  });
}

size_t Transfer::readCallback(char* buffer, size_t, size_t capacity, void* transfer) noexcept {
  return guarded(CURL_READFUNC_ABORT,
                 [&] { return static_cast<Transfer*>(transfer)->readBody(buffer, capacity); });
}

int Transfer::seekCallback(void* transfer, curl_off_t offset, int origin) noexcept {
  const bool is_start = offset == 0 && origin == SEEK_SET;
  return is_start && static_cast<Transfer*>(transfer)->body_->rewind() ? CURL_SEEKFUNC_OK
                                                                       : CURL_SEEKFUNC_FAIL;
}

curl_socket_t Transfer::socketCallback(void*, curlsocktype, curl_sockaddr* address) noexcept {
#ifdef SOCK_CLOEXEC
  return ::socket(address->family, address->socktype | SOCK_CLOEXEC | SOCK_NONBLOCK,
                  address->protocol);
#else
  return ::socket(address->family, address->socktype, address->protocol);
#endif
}

}  // namespace vel
