// TLS over lent buffers: a BIO whose reads take from the socket's receive buffer and whose writes append
// to its send buffer.
#include "platform/tls_session.h"

#include <openssl/err.h>
#include <openssl/x509v3.h>

#include <algorithm>
#include <cstring>
#include <new>
#include <utility>

#include "corvane/socket.h"
#include "platform/openssl_support.h"
#include "platform/tls_context.h"

namespace vel {

/// The two directions of the BIO, and the loan of the buffers for one call.
struct TlsSessionIO {
  struct Loan {
    Loan(TlsSession* borrower, std::string_view* input, std::string* output) : session(borrower) {
      session->input_ = input;
      session->output_ = output;
      // What others left on this thread would be taken for ours. Looking is cheaper than clearing.
      if (ERR_peek_error() != 0) {
        ERR_clear_error();
      }
    }
    ~Loan() {
      session->input_ = nullptr;
      session->output_ = nullptr;
    }
    Loan(const Loan&) = delete;
    Loan& operator=(const Loan&) = delete;
    TlsSession* const session;
  };

  static int read(BIO* bio, char* buffer, int capacity) {
    BIO_clear_retry_flags(bio);
    std::string_view* input = static_cast<TlsSession*>(BIO_get_data(bio))->input_;
    if (input == nullptr || input->empty()) {
      BIO_set_retry_read(bio);
      return -1;
    }
    const size_t length = std::min(input->size(), static_cast<size_t>(capacity));
    std::memcpy(buffer, input->data(), length);
    input->remove_prefix(length);
    return static_cast<int>(length);
  }

  /// Exceptions must not pass through OpenSSL's frames: no memory is a failure of this session.
  static int write(BIO* bio, const char* bytes, int length) {
    BIO_clear_retry_flags(bio);
    std::string* output = static_cast<TlsSession*>(BIO_get_data(bio))->output_;
    if (output == nullptr) {
      return -1;
    }
    try {
      output->append(bytes, static_cast<size_t>(length));
    } catch (const std::bad_alloc&) {
      return -1;
    }
    return length;
  }

  static long control(BIO*, int command, long, void*) { return command == BIO_CTRL_FLUSH ? 1 : 0; }

  static BIO_METHOD* createMethod() {
    BIOMethodPointer method(
        BIO_meth_new(BIO_get_new_index() | BIO_TYPE_SOURCE_SINK, "lent buffers"));
    if (!method || BIO_meth_set_read(method.get(), read) != 1 ||
        BIO_meth_set_write(method.get(), write) != 1 ||
        BIO_meth_set_ctrl(method.get(), control) != 1) {
      return nullptr;
    }
    return method.release();
  }

  /// Made once and never freed: sessions may still end while the process does.
  static BIO* create(TlsSession* session) {
    static BIO_METHOD* const method = createMethod();
    BIO* bio = method == nullptr ? nullptr : BIO_new(method);
    if (bio != nullptr) {
      BIO_set_data(bio, session);
      BIO_set_init(bio, 1);
    }
    return bio;
  }
};

namespace {

/// The most that TLS 1.2 or 1.3 adds to a record: header, explicit nonce or content type, and tag.
constexpr size_t kRecordOverhead = 32;

VELError tlsError(std::string description) {
  return VELError(VELSocketErrorDomain, kVELSocketTLSFailed, std::move(description));
}

}  // namespace

std::unique_ptr<TlsSession> TlsSession::create(const VELTLSSettings& settings, VELError* error) {
  const std::shared_ptr<TlsContext> context = tlsContextForSettings(settings, error);
  if (!context) {
    return nullptr;
  }
  ERR_clear_error();
  std::unique_ptr<TlsSession> session(new TlsSession);
  session->ssl_ = SSL_new(context->handle());
  BIO* bio = session->ssl_ == nullptr ? nullptr : TlsSessionIO::create(session.get());
  if (bio == nullptr) {
    if (error != nullptr) {
      *error = tlsError("No TLS session could be made: " + takeOpenSSLReason());
    }
    return nullptr;
  }
  SSL_set_bio(session->ssl_, bio, bio);
  if (settings.isServer) {
    SSL_set_accept_state(session->ssl_);
    return session;
  }
  SSL_set_connect_state(session->ssl_);
  if (!settings.peerName.empty() && !session->setPeerName(settings.peerName)) {
    if (error != nullptr) {
      *error = VELError(VELSocketErrorDomain, kVELSocketBadParameter,
                        "The name of the peer cannot be that of a certificate.");
    }
    return nullptr;
  }
  return session;
}

TlsSession::~TlsSession() { SSL_free(ssl_); }

/// An address is looked for among the certificate's addresses, and is not sent: server names are DNS
/// names (RFC 6066 §3).
bool TlsSession::setPeerName(const std::string& name) {
  X509_VERIFY_PARAM* rules = SSL_get0_param(ssl_);
  SSL_set_verify(ssl_, SSL_VERIFY_PEER, nullptr);
  if (name.find('\0') != std::string::npos) {
    return false;
  }
  if (X509_VERIFY_PARAM_set1_ip_asc(rules, name.c_str()) == 1) {
    return true;
  }
  X509_VERIFY_PARAM_set_hostflags(rules, X509_CHECK_FLAG_NO_PARTIAL_WILDCARDS);
  return X509_VERIFY_PARAM_set1_host(rules, name.data(), name.size()) == 1 &&
         SSL_ctrl(ssl_, SSL_CTRL_SET_TLSEXT_HOSTNAME, TLSEXT_NAMETYPE_host_name,
                  const_cast<char*>(name.c_str())) == 1;
}

TlsSession::Status TlsSession::handshake(std::string_view* input, std::string* output) {
  if (hasFailed_) {
    return Status::kFailed;
  }
  if (isHandshakeDone_) {
    return Status::kOk;
  }
  const TlsSessionIO::Loan loan(this, input, output);
  const int result = SSL_do_handshake(ssl_);
  if (result != 1) {
    return statusOfResult(result);
  }
  isHandshakeDone_ = true;
  return Status::kOk;
}

/// Spares OpenSSL's look for a record when there cannot be one.
bool TlsSession::hasNothingToRead(std::string_view input) const {
  return input.empty() && SSL_has_pending(ssl_) == 0 &&
         (SSL_get_shutdown(ssl_) & SSL_RECEIVED_SHUTDOWN) == 0;
}

TlsSession::Status TlsSession::read(std::string_view* input, uint8_t* buffer, size_t capacity,
                                    size_t* length, std::string* output) {
  *length = 0;
  if (!isHandshakeDone_ || hasFailed_) {
    const Status status = handshake(input, output);
    if (status != Status::kOk) {
      return status;
    }
  }
  const TlsSessionIO::Loan loan(this, input, output);
  while (*length < capacity && !hasNothingToRead(*input)) {
    size_t piece = 0;
    const int result = SSL_read_ex(ssl_, buffer + *length, capacity - *length, &piece);
    if (result != 1) {
      const Status status = statusOfResult(result);
      // What came before an end or a failure is delivered; the next call tells of it.
      return *length > 0 ? Status::kOk : status;
    }
    *length += piece;
  }
  return *length > 0 ? Status::kOk : Status::kNeedsInput;
}

TlsSession::Status TlsSession::write(std::string_view data, std::string* output) {
  if (hasFailed_) {
    return Status::kFailed;
  }
  if (!isHandshakeDone_) {
    return Status::kNeedsInput;
  }
  if (data.empty()) {
    return Status::kOk;
  }
  const TlsSessionIO::Loan loan(this, nullptr, output);
  const size_t records = data.size() / SSL3_RT_MAX_PLAIN_LENGTH + 1;
  output->reserve(output->size() + data.size() + records * kRecordOverhead);
  size_t written = 0;
  const int result = SSL_write_ex(ssl_, data.data(), data.size(), &written);
  return result == 1 ? Status::kOk : statusOfResult(result);
}

void TlsSession::shutdown(std::string* output) {
  if (hasFailed_ || !isHandshakeDone_ || (SSL_get_shutdown(ssl_) & SSL_SENT_SHUTDOWN) != 0) {
    return;
  }
  const TlsSessionIO::Loan loan(this, nullptr, output);
  SSL_shutdown(ssl_);
}

TlsSession::Status TlsSession::statusOfResult(int result) {
  switch (SSL_get_error(ssl_, result)) {
    case SSL_ERROR_WANT_READ:
      return Status::kNeedsInput;
    case SSL_ERROR_ZERO_RETURN:
      return Status::kClosed;
    default:
      break;
  }
  hasFailed_ = true;
  std::string reason = takeOpenSSLReason();
  const long verification = SSL_get_verify_result(ssl_);
  if (!SSL_is_server(ssl_) && verification != X509_V_OK &&
      SSL_get_verify_mode(ssl_) != SSL_VERIFY_NONE) {
    reason.append(": ").append(X509_verify_cert_error_string(verification));
  }
  error_ = tlsError(std::move(reason));
  return Status::kFailed;
}

}  // namespace vel
