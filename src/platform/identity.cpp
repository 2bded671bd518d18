// Certificates and identities out of PEM and PKCS#12. Nothing here asks for a password: a text that
// needs one is refused.
#include "corvane/identity.h"

#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>

#include <optional>
#include <utility>

#include "platform/certificate_parts.h"
#include "platform/file.h"

namespace {

using vel::CertificateParts;

/// Opens the constructors to this file.
class ParsedCertificate : public VELCertificate {
 public:
  explicit ParsedCertificate(std::unique_ptr<CertificateParts> parts)
      : VELCertificate(std::move(parts)) {}
};

void setFormatError(VELError* error, std::string description) {
  if (error != nullptr) {
    *error = VELError(VELCocoaErrorDomain, VELFormattingError, std::move(description));
  }
  ERR_clear_error();
}

/// Stands in for OpenSSL's own callback, which would ask on the terminal.
int refusePassword(char*, int, int, void* wasAsked) {
  *static_cast<bool*>(wasAsked) = true;
  return -1;
}

std::shared_ptr<const VELCertificate> makeCertificate(vel::X509Pointer certificate) {
  auto parts = std::make_unique<CertificateParts>();
  parts->certificate = std::move(certificate);
  return std::make_shared<ParsedCertificate>(std::move(parts));
}

vel::X509Pointer sharedCertificate(X509* certificate) {
  X509_up_ref(certificate);
  return vel::X509Pointer(certificate);
}

bool isEndOfPEM(unsigned long code) {
  return ERR_GET_LIB(code) == ERR_LIB_PEM && ERR_GET_REASON(code) == PEM_R_NO_START_LINE;
}

/// The first private key of `pem`, whatever stands around it.
vel::PrivateKeyPointer privateKeyWithPEM(std::string_view pem, VELError* error) {
  ERR_clear_error();
  const vel::BIOPointer source = vel::bioOverBytes(pem);
  bool wasAsked = false;
  vel::PrivateKeyPointer key(
      source ? PEM_read_bio_PrivateKey(source.get(), nullptr, refusePassword, &wasAsked) : nullptr);
  if (wasAsked) {
    setFormatError(error, "The private key is encrypted.");
    return nullptr;
  }
  if (!key) {
    const bool isMissing = pem.find("PRIVATE KEY-----") == std::string_view::npos;
    setFormatError(error, isMissing ? "There is no private key in the text."
                                    : "The private key is malformed: " + vel::takeOpenSSLReason());
  }
  ERR_clear_error();
  return key;
}

/// The certificates in the order in which each was issued by the next one (RFC 5246 §7.4.2): archives
/// keep them in any order. Those that are not part of the chain are left out.
std::vector<X509*> chainOf(X509* leaf, const STACK_OF(X509) * others) {
  std::vector<X509*> chain;
  std::vector<X509*> candidates;
  for (int index = 0; index < sk_X509_num(others); ++index) {
    candidates.push_back(sk_X509_value(others, index));
  }
  for (X509* last = leaf; last != nullptr;) {
    X509* issuer = nullptr;
    for (X509*& candidate : candidates) {
      if (candidate != nullptr && X509_check_issued(candidate, last) == X509_V_OK) {
        issuer = std::exchange(candidate, nullptr);
        chain.push_back(issuer);
        break;
      }
    }
    last = issuer;
  }
  return chain;
}

/// The text of a file; the error names it.
std::optional<std::string> contentsOfFile(const std::string& path, VELError* error) {
  VELError cause;
  std::optional<std::string> text = vel::readWholeFile(path, &cause);
  if (!text && error != nullptr) {
    *error = VELError(
        cause.domain(), cause.code(),
        "The file \"" + path + "\" cannot be read: " + cause.localizedFailureReason() + ".");
  } else if (text && text->empty()) {
    setFormatError(error, "The file \"" + path + "\" is empty.");
    return std::nullopt;
  }
  return text;
}

}  // namespace

VELCertificate::VELCertificate(std::unique_ptr<vel::CertificateParts> parts)
    : parts_(std::move(parts)) {}

VELCertificate::~VELCertificate() = default;

std::vector<std::shared_ptr<const VELCertificate>> VELCertificate::certificatesWithPEM(
    std::string_view pem, VELError* error) {
  ERR_clear_error();
  const vel::BIOPointer source = vel::bioOverBytes(pem);
  std::vector<std::shared_ptr<const VELCertificate>> certificates;
  bool wasAsked = false;
  while (source) {
    vel::X509Pointer certificate(
        PEM_read_bio_X509_AUX(source.get(), nullptr, refusePassword, &wasAsked));
    if (!certificate) {
      break;
    }
    certificates.push_back(makeCertificate(std::move(certificate)));
  }
  if (!isEndOfPEM(ERR_peek_last_error())) {
    certificates.clear();
    setFormatError(error, "A certificate is malformed: " + vel::takeOpenSSLReason());
  } else if (certificates.empty()) {
    setFormatError(error, "There is no certificate in the text.");
  }
  ERR_clear_error();
  return certificates;
}

std::string VELCertificate::subjectSummary() const {
  const vel::BIOPointer sink(BIO_new(BIO_s_mem()));
  if (!sink || X509_NAME_print_ex(sink.get(), X509_get_subject_name(parts_->certificate.get()), 0,
                                  XN_FLAG_ONELINE & ~ASN1_STRFLGS_ESC_MSB) < 0) {
    return {};
  }
  char* text = nullptr;
  const long length = BIO_get_mem_data(sink.get(), &text);
  return length > 0 ? std::string(text, static_cast<size_t>(length)) : std::string();
}

VELCertificateList VELIdentity::certificateListWithPEM(std::string_view certificates,
                                                       std::string_view privateKey,
                                                       VELError* error) {
  VELCertificateList list = VELCertificate::certificatesWithPEM(certificates, error);
  if (list.empty()) {
    return {};
  }
  auto parts = std::make_unique<CertificateParts>();
  parts->privateKey = privateKeyWithPEM(privateKey, error);
  if (!parts->privateKey) {
    return {};
  }
  parts->certificate = sharedCertificate(list.front()->parts().certificate.get());
  if (X509_check_private_key(parts->certificate.get(), parts->privateKey.get()) != 1) {
    setFormatError(error, "The private key does not belong to the first certificate.");
    return {};
  }
  list.front().reset(new VELIdentity(std::move(parts)));
  return list;
}

VELCertificateList VELIdentity::certificateListWithPEMFiles(const std::string& certificates,
                                                            const std::string& privateKey,
                                                            VELError* error) {
  const std::optional<std::string> certificateText = contentsOfFile(certificates, error);
  if (!certificateText) {
    return {};
  }
  const std::optional<std::string> keyText = contentsOfFile(privateKey, error);
  if (!keyText) {
    return {};
  }
  return certificateListWithPEM(*certificateText, *keyText, error);
}

VELCertificateList VELIdentity::certificateListWithPKCS12(std::string_view archive,
                                                          const std::string& password,
                                                          VELError* error) {
  ERR_clear_error();
  const vel::BIOPointer source = vel::bioOverBytes(archive);
  const vel::PKCS12Pointer pkcs12(source ? d2i_PKCS12_bio(source.get(), nullptr) : nullptr);
  if (!pkcs12) {
    setFormatError(error, "This is not a PKCS#12 archive.");
    return {};
  }
  EVP_PKEY* key = nullptr;
  X509* certificate = nullptr;
  STACK_OF(X509)* others = nullptr;
  const int isParsed = PKCS12_parse(pkcs12.get(), password.c_str(), &key, &certificate, &others);
  auto parts = std::make_unique<CertificateParts>();
  parts->privateKey.reset(key);
  parts->certificate.reset(certificate);
  const vel::X509StackPointer othersOwner(others);
  if (isParsed != 1) {
    const bool isPassword = ERR_GET_REASON(ERR_peek_last_error()) == PKCS12_R_MAC_VERIFY_FAILURE;
    setFormatError(
        error, isPassword ? "The password of the PKCS#12 archive is wrong."
                          : "The PKCS#12 archive cannot be opened: " + vel::takeOpenSSLReason());
    return {};
  }
  if (key == nullptr || certificate == nullptr) {
    setFormatError(error, "There is no certificate with its private key in the PKCS#12 archive.");
    return {};
  }
  VELCertificateList list(1);
  list.front().reset(new VELIdentity(std::move(parts)));
  for (X509* issuer : chainOf(certificate, others)) {
    list.push_back(makeCertificate(sharedCertificate(issuer)));
  }
  ERR_clear_error();
  return list;
}
