// Transfer: one request of a client session and its answer, over a handle of libcurl.
#pragma once

#include <curl/curl.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "corvane/data.h"
#include "corvane/dictionary.h"
#include "corvane/error.h"
#include "corvane/progress.h"
#include "corvane/url_request.h"
#include "corvane/url_response.h"
#include "platform/deadline.h"
#include "platform/upload_body.h"

namespace vel {

class ClientSession;

/// How a transfer ended.
/// Shape:   whole, it has a response and data; something that is no HTTP gives a response that is no
///          `VELHTTPURLResponse` and an error; any other failure gives an error only.
struct TransferResult {
  std::optional<VELData> data;
  std::shared_ptr<const VELURLResponse> response;
  std::optional<VELError> error;
};

/// Called once. Queue: the session's, on which nothing else depends on its return.
using TransferCompletion = std::function<void(TransferResult result)>;

struct CurlHandleDeleter {
  void operator()(CURL* handle) const noexcept { curl_easy_cleanup(handle); }
};
struct CurlListDeleter {
  void operator()(curl_slist* list) const noexcept { curl_slist_free_all(list); }
};
using CurlHandle = std::unique_ptr<CURL, CurlHandleDeleter>;

/// Sets what holds for every handle, those that only look up a host among them. False without memory for that.
bool prepareForLookUps(CURL* handle) noexcept;

/// Redirects are followed, content codings undone; there are no cookies, no stored credentials and no proxy.
/// Owner:   its session, until it has ended.
/// Queue:   the session's.
class Transfer final : private Deadline, public std::enable_shared_from_this<Transfer> {
 public:
  Transfer(std::weak_ptr<ClientSession> session, std::shared_ptr<VELSerialQueue> queue,
           VELURLRequest request, std::shared_ptr<VELProgress> progress,
           TransferCompletion completion);
  ~Transfer() override;

  const VELURL& URL() const noexcept { return request_.URL(); }
  const std::shared_ptr<VELProgress>& progress() const noexcept { return progress_; }
  CURL* handle() const noexcept { return handle_.get(); }
  CurlHandle takeHandle() noexcept { return std::move(handle_); }

  /// Makes `handle`, which is as new, ready for the request. False without memory for that.
  bool prepare(CurlHandle handle);
  /// The time without any progress begins anew.
  void touch();
  /// The handle is done with `code`.
  TransferResult resultOf(CURLcode code);
  /// Whether the answer sends the request elsewhere. Then it has been changed accordingly.
  /// Errors:  `error` is set where it cannot be followed.
  bool followRedirect(std::optional<VELError>* error);
  /// Ends with `result`.
  void complete(TransferResult result);

 private:
  template <class Value>
  void set(CURLoption option, Value value);
  void setFields();
  void setBody();
  uint64_t status() const noexcept;
  bool isRedirected() const;
  size_t didReceiveHeadLine(std::string_view line);
  size_t didReceiveBody(std::string_view bytes);
  size_t readBody(char* buffer, size_t capacity);
  VELError errorOf(CURLcode code) const;

  // What libcurl calls. Exceptions end there.
  template <class Call>
  static size_t guarded(size_t failure, Call&& call) noexcept;
  static size_t headLineCallback(char* bytes, size_t, size_t length, void* transfer) noexcept;
  static size_t bodyCallback(char* bytes, size_t, size_t length, void* transfer) noexcept;
  static size_t readCallback(char* buffer, size_t, size_t capacity, void* transfer) noexcept;
  static int seekCallback(void* transfer, curl_off_t offset, int origin) noexcept;
  static curl_socket_t socketCallback(void*, curlsocktype, curl_sockaddr* address) noexcept;

  void deadlineDidFire() override;
  void deadlineWillNeverFire() noexcept override;
  std::shared_ptr<void> deadlineOwner() override { return weak_from_this().lock(); }

  const std::weak_ptr<ClientSession> session_;
  const std::shared_ptr<VELSerialQueue> queue_;
  VELURLRequest request_;
  const std::shared_ptr<VELProgress> progress_;
  TransferCompletion completion_;
  std::unique_ptr<curl_slist, CurlListDeleter> field_list_;
  // Goes before what it names.
  CurlHandle handle_;
  bool is_prepared_ = false;
  std::unique_ptr<UploadBody> body_;
  int redirects_ = 0;
  char error_text_[CURL_ERROR_SIZE] = {};

  // The answer.
  size_t head_length_ = 0;
  bool head_is_complete_ = false;  // the final one
  bool switches_protocols_ = false;
  bool body_has_begun_ = false;
  VELDictionary fields_{VELKeyOrder{true}};
  std::string data_;
};

}  // namespace vel
