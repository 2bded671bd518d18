// Certificates and identities for TLS.
#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "corvane/error.h"
#include "corvane/export.h"

namespace vel {
struct CertificateParts;
}

/// An X.509 certificate.
/// Queue:   any; immutable.
class CORVANE_EXPORT VELCertificate {
 public:
  virtual ~VELCertificate();
  VELCertificate(const VELCertificate&) = delete;
  VELCertificate& operator=(const VELCertificate&) = delete;

  /// Every certificate of PEM text, in its order.
  /// Errors:  empty, with `error` set, when there is none or one is malformed.
  static std::vector<std::shared_ptr<const VELCertificate>> certificatesWithPEM(
      std::string_view pem, VELError* error = nullptr);

  /// The subject as one line, for people.
  std::string subjectSummary() const;
  /// For the library's own use.
  const vel::CertificateParts& parts() const { return *parts_; }

 protected:
  explicit VELCertificate(std::unique_ptr<vel::CertificateParts> parts);

 private:
  std::unique_ptr<vel::CertificateParts> parts_;
};

/// A list for TLS: the identity first, then the rest of its chain.
using VELCertificateList = std::vector<std::shared_ptr<const VELCertificate>>;

/// A certificate with its private key.
///
/// ```cpp
/// VELError error;
/// VELCertificateList list =
///     VELIdentity::certificateListWithPEMFiles("chain.pem", "key.pem", &error);
/// bool usable = !list.empty();
/// ```
class CORVANE_EXPORT VELIdentity : public VELCertificate {
 public:
  /// The identity and its chain: the first certificate of `certificates` belongs to `privateKey`.
  /// Errors:  empty, with `error` set, when a text is malformed, the key is encrypted or belongs to
  ///          another certificate.
  static VELCertificateList certificateListWithPEM(std::string_view certificates,
                                                   std::string_view privateKey,
                                                   VELError* error = nullptr);
  /// The same out of files.
  static VELCertificateList certificateListWithPEMFiles(const std::string& certificates,
                                                        const std::string& privateKey,
                                                        VELError* error = nullptr);
  /// The same out of a PKCS#12 archive (RFC 7292). The chain is put in order; certificates that are not
  /// part of it are left out.
  static VELCertificateList certificateListWithPKCS12(std::string_view archive,
                                                      const std::string& password,
                                                      VELError* error = nullptr);

 private:
  using VELCertificate::VELCertificate;
};

/// What `VELSocket::startTLS` negotiates with: TLS 1.2 or 1.3, ALPN `http/1.1`.
struct VELTLSSettings {
  /// Which side of the handshake the socket plays.
  bool isServer = false;
  /// Server: the identity and its chain. Client: empty, or an identity for the server to ask for.
  VELCertificateList certificates;
  /// Client: the name that the server's certificate must carry; empty turns the check of the server off.
  std::string peerName;
  /// Client: the certificates that may end a chain, self-signed or not; empty stands for the system's
  /// roots.
  VELCertificateList trustedRoots;
};
