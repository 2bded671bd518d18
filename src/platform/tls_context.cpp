// Builds OpenSSL's contexts and keeps one per certificate list.
#include "platform/tls_context.h"

#include <openssl/err.h>

#include <algorithm>
#include <iterator>
#include <list>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "corvane/socket.h"
#include "platform/certificate_parts.h"

namespace vel {
namespace {

/// Forward secrecy and authenticated encryption only, as RFC 9325 §4.2 recommends for TLS 1.2. The
/// suites of TLS 1.3 are all of that kind.
constexpr char kTls12Ciphers[] =
    "ECDHE-ECDSA-AES128-GCM-SHA256:ECDHE-RSA-AES128-GCM-SHA256:"
    "ECDHE-ECDSA-AES256-GCM-SHA384:ECDHE-RSA-AES256-GCM-SHA384:"
    "ECDHE-ECDSA-CHACHA20-POLY1305:ECDHE-RSA-CHACHA20-POLY1305";

/// The list of one protocol in the form of RFC 7301 §3.1.
constexpr unsigned char kProtocols[] = {8, 'h', 't', 't', 'p', '/', '1', '.', '1'};

/// Clients with tickets keep their sessions themselves; this bounds what the others cost.
constexpr long kSessionCacheSize = 1024;

/// Enough for a host with many certificates; one with more rebuilds a context now and then.
constexpr size_t kLargestCache = 64;

/// A server that shares no protocol with the client refuses it (RFC 7301 §3.2).
int selectProtocol(SSL*, const unsigned char** selected, unsigned char* selectedLength,
                   const unsigned char* offered, unsigned int offeredLength, void*) {
  unsigned char* match = nullptr;
  if (SSL_select_next_proto(&match, selectedLength, kProtocols, sizeof kProtocols, offered,
                            offeredLength) != OPENSSL_NPN_NEGOTIATED) {
    return SSL_TLSEXT_ERR_ALERT_FATAL;
  }
  *selected = match;
  return SSL_TLSEXT_ERR_OK;
}

bool setProtocolRules(SSL_CTX* context, bool isServer) {
  SSL_CTX_set_options(context, SSL_OP_NO_COMPRESSION | SSL_OP_NO_RENEGOTIATION);
  SSL_CTX_set_mode(context, SSL_MODE_RELEASE_BUFFERS | SSL_MODE_NO_AUTO_CHAIN);
  if (SSL_CTX_set_min_proto_version(context, TLS1_2_VERSION) != 1 ||
      SSL_CTX_set_max_proto_version(context, TLS1_3_VERSION) != 1 ||
      SSL_CTX_set_cipher_list(context, kTls12Ciphers) != 1) {
    return false;
  }
  if (isServer) {
    SSL_CTX_sess_set_cache_size(context, kSessionCacheSize);
    SSL_CTX_set_alpn_select_cb(context, selectProtocol, nullptr);
    return true;
  }
  return SSL_CTX_set_alpn_protos(context, kProtocols, sizeof kProtocols) == 0;
}

bool setIdentity(SSL_CTX* context, const VELCertificateList& list) {
  const X509StackPointer chain(sk_X509_new_null());
  if (!chain) {
    return false;
  }
  for (auto certificate = std::next(list.begin()); certificate != list.end(); ++certificate) {
    X509* handle = (*certificate)->parts().certificate.get();
    if (X509_up_ref(handle) != 1) {
      return false;
    }
    if (sk_X509_push(chain.get(), handle) == 0) {
      X509_free(handle);
      return false;
    }
  }
  const CertificateParts& identity = list.front()->parts();
  return SSL_CTX_use_cert_and_key(context, identity.certificate.get(), identity.privateKey.get(),
                                  chain.get(), 1) == 1;
}

/// A root that is given need not be self-signed: it ends a chain because the host says so.
bool setTrustedRoots(SSL_CTX* context, const VELCertificateList& roots) {
  if (roots.empty()) {
    return SSL_CTX_set_default_verify_paths(context) == 1;
  }
  X509_STORE* store = SSL_CTX_get_cert_store(context);
  X509_STORE_set_flags(store, X509_V_FLAG_PARTIAL_CHAIN);
  return std::all_of(roots.begin(), roots.end(), [store](const auto& root) {
    return X509_STORE_add_cert(store, root->parts().certificate.get()) == 1;
  });
}

std::string faultOfSettings(const VELTLSSettings& settings) {
  const auto isNone = [](const auto& certificate) { return certificate == nullptr; };
  const VELCertificateList& list = settings.certificates;
  if (std::any_of(list.begin(), list.end(), isNone) ||
      std::any_of(settings.trustedRoots.begin(), settings.trustedRoots.end(), isNone)) {
    return "A list of certificates holds an element that is none.";
  }
  if (settings.isServer && list.empty()) {
    return "A server needs an identity for TLS.";
  }
  if (!list.empty() && list.front()->parts().privateKey == nullptr) {
    return "The first certificate of the list has no private key.";
  }
  return {};
}

std::shared_ptr<TlsContext> buildContext(const VELTLSSettings& settings) {
  prepareOpenSSL();
  ERR_clear_error();
  SSLContextPointer context(
      SSL_CTX_new(settings.isServer ? TLS_server_method() : TLS_client_method()));
  if (!context || !setProtocolRules(context.get(), settings.isServer)) {
    return nullptr;
  }
  if (!settings.certificates.empty() && !setIdentity(context.get(), settings.certificates)) {
    return nullptr;
  }
  if (!settings.isServer && !setTrustedRoots(context.get(), settings.trustedRoots)) {
    return nullptr;
  }
  auto result = std::make_shared<TlsContext>(context.get());
  static_cast<void>(context.release());
  return result;
}

/// Certificates by identity, without keeping them alive. The owner tells a certificate from a later
/// one at the same address.
class CertificateKeys {
 public:
  explicit CertificateKeys(const VELCertificateList& list) {
    for (const auto& certificate : list) {
      keys_.push_back({certificate.get(), certificate});
    }
  }

  bool isExpired() const {
    return std::any_of(keys_.begin(), keys_.end(),
                       [](const Key& key) { return key.owner.expired(); });
  }

  bool matches(const VELCertificateList& list) const {
    return std::equal(keys_.begin(), keys_.end(), list.begin(), list.end(),
                      [](const Key& key, const auto& certificate) {
                        return key.address == certificate.get() &&
                               !key.owner.owner_before(certificate) &&
                               !certificate.owner_before(key.owner);
                      });
  }

 private:
  struct Key {
    const VELCertificate* address;
    std::weak_ptr<const VELCertificate> owner;
  };
  std::vector<Key> keys_;
};

/// Contexts by their settings, the last used first. One lives here as long as all of its certificates
/// live elsewhere. The lock is a leaf: contexts are built and destroyed outside of it.
class ContextCache {
 public:
  std::shared_ptr<TlsContext> find(const VELTLSSettings& settings) {
    std::list<Entry> dropped;
    const std::lock_guard lock(mutex_);
    return findLocked(settings, &dropped);
  }

  /// Keeps `context`, unless another thread was faster: then that thread's is the one.
  std::shared_ptr<TlsContext> insert(const VELTLSSettings& settings,
                                     std::shared_ptr<TlsContext> context) {
    std::list<Entry> fresh;
    fresh.push_back({settings.isServer, CertificateKeys(settings.certificates),
                     CertificateKeys(settings.trustedRoots), context});
    std::list<Entry> dropped;
    const std::lock_guard lock(mutex_);
    if (auto present = findLocked(settings, &dropped)) {
      return present;
    }
    entries_.splice(entries_.begin(), fresh);
    if (entries_.size() > kLargestCache) {
      dropped.splice(dropped.end(), entries_, std::prev(entries_.end()));
    }
    return context;
  }

 private:
  struct Entry {
    bool isServer;
    CertificateKeys certificates;
    CertificateKeys trustedRoots;
    std::shared_ptr<TlsContext> context;
  };

  /// Moves what has expired to `dropped`, for the caller to destroy after unlocking.
  std::shared_ptr<TlsContext> findLocked(const VELTLSSettings& settings,
                                         std::list<Entry>* dropped) {
    for (auto next = entries_.begin(); next != entries_.end();) {
      const auto entry = next++;
      if (entry->certificates.isExpired() || entry->trustedRoots.isExpired()) {
        dropped->splice(dropped->end(), entries_, entry);
      } else if (entry->isServer == settings.isServer &&
                 entry->certificates.matches(settings.certificates) &&
                 entry->trustedRoots.matches(settings.trustedRoots)) {
        entries_.splice(entries_.begin(), entries_, entry);
        return entry->context;
      }
    }
    return nullptr;
  }

  std::mutex mutex_;
  /// Guarded by `mutex_`.
  std::list<Entry> entries_;
};

/// Never destroyed: sessions may still end while the process does.
ContextCache& contextCache() {
  static ContextCache& cache = *new ContextCache;
  return cache;
}

}  // namespace

TlsContext::~TlsContext() { SSL_CTX_free(handle_); }

std::shared_ptr<TlsContext> tlsContextForSettings(const VELTLSSettings& settings, VELError* error) {
  std::string fault = faultOfSettings(settings);
  if (fault.empty()) {
    if (auto context = contextCache().find(settings)) {
      return context;
    }
    if (auto context = buildContext(settings)) {
      return contextCache().insert(settings, std::move(context));
    }
    fault = "OpenSSL refuses the certificates: " + takeOpenSSLReason();
  }
  if (error != nullptr) {
    *error = VELError(VELSocketErrorDomain, kVELSocketBadConfiguration, std::move(fault));
  }
  return nullptr;
}

}  // namespace vel
