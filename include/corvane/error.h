// VELError and VELException: run-time failures as values, misuse as exceptions. Every exception name
// and every error domain that the library uses for more than one class stands here.
#pragma once

#include <cstdint>
#include <exception>
#include <map>
#include <string>

#include "corvane/export.h"

/// Domain of errors of sockets; their codes stand in corvane/socket.h.
inline constexpr char VELSocketErrorDomain[] = "VELSocketErrorDomain";
/// Domain of errors of the operating system; the codes are those of `errno`.
inline constexpr char VELPOSIXErrorDomain[] = "NSPOSIXErrorDomain";
/// Domain of errors of files, texts and patterns.
inline constexpr char VELCocoaErrorDomain[] = "NSCocoaErrorDomain";
/// Domain of errors of URLs and of what is fetched by them.
inline constexpr char VELURLErrorDomain[] = "NSURLErrorDomain";
/// Domain of errors with which WebSocket sessions end; the codes are close statuses (RFC 6455 §7.4).
inline constexpr char VELWebSocketErrorDomain[] = "VELWebSocketErrorDomain";

/// Codes of `VELURLErrorDomain`.
enum VELURLErrorCode : int64_t {
  kVELURLErrorUnknown = -1,
  kVELURLErrorCancelled = -999,
  kVELURLErrorBadURL = -1000,
  /// Nothing came, or could be sent, for as long as the request allows.
  kVELURLErrorTimedOut = -1001,
  /// Neither http nor https.
  kVELURLErrorUnsupportedURL = -1002,
  kVELURLErrorCannotFindHost = -1003,
  kVELURLErrorCannotConnectToHost = -1004,
  /// The server closed the connection before its answer was whole.
  kVELURLErrorNetworkConnectionLost = -1005,
  kVELURLErrorTooManyRedirects = -1007,
  /// The answer has a status that was not hoped for.
  kVELURLErrorBadServerResponse = -1011,
  kVELURLErrorCannotDecodeContentData = -1016,
  /// What came is no HTTP.
  kVELURLErrorCannotParseResponse = -1017,
  /// The body could not be read, or not once more.
  kVELURLErrorRequestBodyStreamExhausted = -1021,
  /// The head of the answer is too long.
  kVELURLErrorDataLengthExceedsMaximum = -1103,
  kVELURLErrorSecureConnectionFailed = -1200,
  kVELURLErrorServerCertificateUntrusted = -1202,
};

/// Key of an error's user info for what only those should know who run the program: which host, for instance.
inline constexpr char VELErrorDetailKey[] = "VELErrorDetail";

/// Code in `VELCocoaErrorDomain`: a text does not have the form that it needs, a pattern for instance.
inline constexpr int64_t VELFormattingError = 2048;
/// Code in `VELCocoaErrorDomain`: the host has called it off.
inline constexpr int64_t VELUserCancelledError = 3072;

/// Name of exceptions about arguments and calls that the interface does not allow.
inline constexpr char VELInvalidArgumentException[] = "NSInvalidArgumentException";
/// Name of exceptions about states that cannot be.
inline constexpr char VELInternalInconsistencyException[] = "NSInternalInconsistencyException";
/// Name of exceptions about an index or a range beyond the end.
inline constexpr char VELRangeException[] = "NSRangeException";
/// Name of exceptions about a key that names no property.
inline constexpr char VELUnknownKeyException[] = "NSUnknownKeyException";

/// A run-time failure: a domain, a code within it, and texts for people.
///
/// ```cpp
/// VELError error(VELPOSIXErrorDomain, 2, "The file could not be opened.");
/// error.setLocalizedRecoverySuggestion("Check the path.");
/// std::string log = error.description();
/// ```
/// Operations that can fail take `VELError* error = nullptr` last and write it only on failure;
/// callbacks get `const std::optional<VELError>&`.
class CORVANE_EXPORT VELError {
 public:
  /// No error: an empty domain and the code 0, as the place that an operation writes to.
  VELError() = default;
  /// An error of `domain` with `code`, described by `description`.
  VELError(std::string domain, int64_t code, std::string description = {});

  const std::string& domain() const noexcept { return domain_; }
  int64_t code() const noexcept { return code_; }
  /// What happened.
  const std::string& localizedDescription() const noexcept { return localizedDescription_; }
  /// Why it happened.
  /// Default: empty.
  const std::string& localizedFailureReason() const noexcept { return localizedFailureReason_; }
  void setLocalizedFailureReason(std::string reason);
  /// What can be done about it.
  /// Default: empty.
  const std::string& localizedRecoverySuggestion() const noexcept {
    return localizedRecoverySuggestion_;
  }
  void setLocalizedRecoverySuggestion(std::string suggestion);
  /// Further facts by name.
  /// Default: empty.
  const std::map<std::string, std::string>& userInfo() const noexcept { return userInfo_; }
  void setUserInfo(std::map<std::string, std::string> userInfo);

  /// One line for logs: the domain, the code and the description.
  std::string description() const;

  friend bool operator==(const VELError&, const VELError&) = default;

 private:
  std::string domain_;
  int64_t code_ = 0;
  std::string localizedDescription_;
  std::string localizedFailureReason_;
  std::string localizedRecoverySuggestion_;
  std::map<std::string, std::string> userInfo_;
};

/// A programming error; the reasons that the library documents are fixed texts.
///
/// ```cpp
/// try {
///   throw VELException(VELInvalidArgumentException, "Connections should not be initialized directly");
/// } catch (const VELException& exception) {
///   bool misuse = exception.name() == VELInvalidArgumentException;
/// }
/// ```
class CORVANE_EXPORT VELException : public std::exception {
 public:
  VELException(std::string name, std::string reason);
  VELException(const VELException&) = default;
  VELException& operator=(const VELException&) = default;
  ~VELException() override;

  const std::string& name() const noexcept { return name_; }
  const std::string& reason() const noexcept { return reason_; }
  /// The name and the reason in one line.
  const char* what() const noexcept override { return text_.c_str(); }

 private:
  std::string name_;
  std::string reason_;
  std::string text_;
};
