// The connection's side of a VELRequest: what stands behind one, and how a received one comes to be.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>

#include "corvane/request.h"
#include "http/message_head.h"

namespace vel {

/// What stands behind a VELRequest. A received head stays as it is; values that somebody asked for or
/// set are made beside it.
class RequestState {
 public:
  RequestState() = default;
  explicit RequestState(MessageHead&& received) : head(std::move(received)) {}

  struct Values {
    std::optional<VELDictionary> headers;
    std::optional<VELDictionary> get_parameters;
    std::optional<VELDictionary> post_parameters;
    std::optional<VELURL> url;
    std::string method;
  };

  // Set by the connection before the request is shared; the host's setters change them afterwards.
  MessageHead head;
  uint64_t content_length = 0;
  unsigned encoding = VELUTF8StringEncoding;
  // What stands in the values is a host's, not made from the head.
  bool headers_are_set = false;
  bool method_is_set = false;
  bool post_parameters_are_set = false;
  bool url_is_set = false;
  std::weak_ptr<VELConnection> connection;
  std::optional<VELData> body_data;
  std::optional<VELURL> body_file_url;

  // Guarded by mutex, since reading makes them.
  std::mutex mutex;
  bool has_identifier = false;
  VELUUID identifier;
  std::optional<VELTextCheckingResult> match;
  std::unique_ptr<Values> values;
};

/// A request that a connection read, in one allocation with its state:
///
///   auto request = std::make_shared<ReceivedRequest>();
///   ... request->head().appendLine(line) ...          // or make_shared<ReceivedRequest>(std::move(head))
///   request->setMatch(std::move(match));
///   request->prepare(weak_from_this(), received, std::move(data), std::move(fileURL));
///
/// Queue:   everything here belongs to the connection's queue, before the request is handed to anybody;
///          only reading the head goes on afterwards.
class ReceivedRequest final : public VELRequest {
 public:
  ReceivedRequest() : VELRequest(state_) {}
  explicit ReceivedRequest(MessageHead&& head) : VELRequest(state_), state_(std::move(head)) {}

  MessageHead& head() noexcept { return state_.head; }
  const MessageHead& head() const noexcept { return state_.head; }

  /// The match of the route over `head().path()`.
  void setMatch(std::optional<VELTextCheckingResult> match) { state_.match = std::move(match); }
  /// The connection and the body that was received.
  void prepare(std::weak_ptr<VELConnection> connection, uint64_t contentLength,
               std::optional<VELData> bodyData, std::optional<VELURL> bodyFileURL) {
    state_.connection = std::move(connection);
    state_.content_length = contentLength;
    state_.body_data = std::move(bodyData);
    state_.body_file_url = std::move(bodyFileURL);
  }

 private:
  RequestState state_;
};

}  // namespace vel
