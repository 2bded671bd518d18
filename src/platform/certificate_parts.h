// What a VELCertificate holds of OpenSSL's. Kept out of the public header, so that hosts need none of
// OpenSSL's.
#pragma once

#include "platform/openssl_support.h"

namespace vel {

struct CertificateParts {
  X509Pointer certificate;
  /// None unless the certificate is an identity.
  PrivateKeyPointer privateKey;
};

}  // namespace vel
