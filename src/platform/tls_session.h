// The TLS state of one connection over buffers that its socket lends for each call. Does no I/O and
// knows no time: truncation (an end without close_notify) and time-outs are the socket's.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "corvane/error.h"
#include "corvane/identity.h"

struct ssl_st;

namespace vel {

/// Belongs to one socket and is used on its queue only. A call consumes ciphertext from the front of
/// `input`, advancing it, and appends what must be sent to `output`; neither is kept.
///
/// | State      | handshake | read                   | write       | shutdown              |
/// |------------|-----------|------------------------|-------------|-----------------------|
/// | handshake  | goes on   | goes on                | kNeedsInput | nothing               |
/// | open       | kOk       | bytes, or kNeedsInput  | kOk         | close_notify          |
/// | peer ended | kOk       | kClosed                | kOk         | close_notify          |
/// | shut down  | kOk       | as if it were not      | kFailed     | nothing               |
/// | failed     | kFailed   | kFailed                | kFailed     | nothing               |
class TlsSession {
 public:
  enum class Status {
    kOk,
    /// All of `input` is used up; a part of a record is kept inside.
    kNeedsInput,
    /// The peer sent close_notify (RFC 8446 §6.1); what is left of `input` counts for nothing.
    kClosed,
    /// See `error`. An alert for the peer may be in `output`.
    kFailed,
  };

  /// None, with `error` set, when the settings cannot make a session.
  static std::unique_ptr<TlsSession> create(const VELTLSSettings& settings, VELError* error);
  ~TlsSession();
  TlsSession(const TlsSession&) = delete;
  TlsSession& operator=(const TlsSession&) = delete;

  /// Goes on with the handshake. kOk when it is done: what is left of `input` is for `read`. A client
  /// begins with an empty `input`.
  Status handshake(std::string_view* input, std::string* output);
  bool isHandshakeDone() const { return isHandshakeDone_; }

  /// Decrypts at most `capacity` (not 0) bytes into `buffer` and sets `length` to what came: more than
  /// 0 with kOk, 0 otherwise. Only kNeedsInput says that nothing more can come out: after kOk, go on.
  Status read(std::string_view* input, uint8_t* buffer, size_t capacity, size_t* length,
              std::string* output);
  /// Encrypts all of `data`.
  Status write(std::string_view data, std::string* output);
  /// Appends close_notify, once.
  void shutdown(std::string* output);

  /// The failure: `VELSocketErrorDomain`, `kVELSocketTLSFailed`, OpenSSL's reason.
  const VELError& error() const { return error_; }

 private:
  friend struct TlsSessionIO;

  TlsSession() = default;
  bool setPeerName(const std::string& name);
  bool hasNothingToRead(std::string_view input) const;
  Status statusOfResult(int result);

  ssl_st* ssl_ = nullptr;
  /// Lent for the running call.
  std::string_view* input_ = nullptr;
  std::string* output_ = nullptr;
  bool isHandshakeDone_ = false;
  bool hasFailed_ = false;
  VELError error_;
};

}  // namespace vel
