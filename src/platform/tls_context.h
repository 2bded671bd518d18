// What the TLS sessions of one certificate list share: OpenSSL's context with the identity, the rules
// of the protocol and the session tickets. What differs per session stands in tls_session.h.
#pragma once

#include <memory>

#include "corvane/error.h"
#include "corvane/identity.h"

struct ssl_ctx_st;

namespace vel {

/// Shared by sessions on any thread; immutable but for OpenSSL's own, locked, session cache.
class TlsContext {
 public:
  /// Takes over `handle`.
  explicit TlsContext(ssl_ctx_st* handle) : handle_(handle) {}
  ~TlsContext();
  TlsContext(const TlsContext&) = delete;
  TlsContext& operator=(const TlsContext&) = delete;

  ssl_ctx_st* handle() const { return handle_; }

 private:
  ssl_ctx_st* const handle_;
};

/// The context for `settings`: the same one as long as the side, the certificates and the roots are the
/// same objects and are alive.
/// Errors:  none, with `error` set, when the certificates do not make an identity or OpenSSL refuses
///          them.
/// Queue:   any.
std::shared_ptr<TlsContext> tlsContextForSettings(const VELTLSSettings& settings, VELError* error);

}  // namespace vel
