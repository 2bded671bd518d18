// Makes certificates with OpenSSL. Throws when it cannot: a test without its certificate is void.
#include "support/test_certificate.h"

#include <arpa/inet.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>

#include <stdexcept>

#include "platform/openssl_support.h"

namespace vel::test {
namespace {

constexpr long kDay = 24L * 60 * 60;

struct Authority {
  X509* certificate;
  EVP_PKEY* key;
};

void require(bool isTrue, const char* what) {
  if (!isTrue) {
    throw std::runtime_error(std::string("test certificate: ") + what);
  }
}

PrivateKeyPointer makeKey(KeyKind kind) {
  PrivateKeyPointer key(kind == KeyKind::kEC
                            ? EVP_PKEY_Q_keygen(nullptr, nullptr, "EC", "P-256")
                            : EVP_PKEY_Q_keygen(nullptr, nullptr, "RSA", size_t{2048}));
  require(key != nullptr, "no key");
  return key;
}

std::string alternativeNames(const std::vector<std::string>& names) {
  std::string text;
  for (const std::string& name : names) {
    unsigned char address[sizeof(in6_addr)];
    const bool isAddress = inet_pton(AF_INET, name.c_str(), address) == 1 ||
                           inet_pton(AF_INET6, name.c_str(), address) == 1;
    text += (text.empty() ? "" : ",") + std::string(isAddress ? "IP:" : "DNS:") + name;
  }
  return text;
}

void addExtension(X509* certificate, int kind, const std::string& value) {
  X509V3_CTX context;
  X509V3_set_ctx(&context, certificate, certificate, nullptr, nullptr, 0);
  X509_EXTENSION* extension = X509V3_EXT_conf_nid(nullptr, &context, kind, value.c_str());
  require(extension != nullptr && X509_add_ext(certificate, extension, -1) == 1, "no extension");
  X509_EXTENSION_free(extension);
}

X509Pointer issue(const std::string& subject, EVP_PKEY* key, const std::string& names,
                  const Authority* authority) {
  static long serial = 0;
  X509Pointer certificate(X509_new());
  require(certificate != nullptr, "no certificate");
  X509* handle = certificate.get();
  X509_set_version(handle, X509_VERSION_3);
  ASN1_INTEGER_set(X509_get_serialNumber(handle), ++serial);
  X509_gmtime_adj(X509_getm_notBefore(handle), -kDay);
  X509_gmtime_adj(X509_getm_notAfter(handle), kDay);
  X509_NAME_add_entry_by_txt(X509_get_subject_name(handle), "CN", MBSTRING_UTF8,
                             reinterpret_cast<const unsigned char*>(subject.c_str()), -1, -1, 0);
  X509_set_issuer_name(handle, X509_get_subject_name(authority ? authority->certificate : handle));
  X509_set_pubkey(handle, key);
  if (names.empty()) {
    addExtension(handle, NID_basic_constraints, "critical,CA:TRUE");
  } else {
    addExtension(handle, NID_subject_alt_name, names);
  }
  require(X509_sign(handle, authority ? authority->key : key, EVP_sha256()) > 0, "not signed");
  return certificate;
}

std::string textOf(BIO* sink) {
  char* bytes = nullptr;
  const long length = BIO_get_mem_data(sink, &bytes);
  return std::string(bytes, static_cast<size_t>(length));
}

std::string pemOf(X509* certificate) {
  const BIOPointer sink(BIO_new(BIO_s_mem()));
  require(PEM_write_bio_X509(sink.get(), certificate) == 1, "no PEM");
  return textOf(sink.get());
}

std::string pemOf(EVP_PKEY* key, const std::string* password) {
  const BIOPointer sink(BIO_new(BIO_s_mem()));
  require(PEM_write_bio_PKCS8PrivateKey(
              sink.get(), key, password == nullptr ? nullptr : EVP_aes_256_cbc(),
              password == nullptr ? nullptr : password->c_str(),
              password == nullptr ? 0 : static_cast<int>(password->size()), nullptr, nullptr) == 1,
          "no PEM");
  return textOf(sink.get());
}

PrivateKeyPointer keyOf(const TestIdentity& identity) {
  const BIOPointer source = bioOverBytes(identity.privateKey);
  return PrivateKeyPointer(PEM_read_bio_PrivateKey(source.get(), nullptr, nullptr, nullptr));
}

}  // namespace

TestIdentity makeSelfSignedIdentity(KeyKind kind, const std::vector<std::string>& names) {
  const PrivateKeyPointer key = makeKey(kind);
  const X509Pointer certificate = issue(names.front(), key.get(), alternativeNames(names), nullptr);
  return {pemOf(certificate.get()), pemOf(key.get(), nullptr), pemOf(certificate.get())};
}

TestIdentity makeChainedIdentity(const std::vector<std::string>& names) {
  const PrivateKeyPointer rootKey = makeKey(KeyKind::kEC);
  const X509Pointer root = issue("Test Root", rootKey.get(), "", nullptr);
  const Authority rootAuthority{root.get(), rootKey.get()};
  const PrivateKeyPointer middleKey = makeKey(KeyKind::kEC);
  const X509Pointer middle = issue("Test Intermediate", middleKey.get(), "", &rootAuthority);
  const Authority middleAuthority{middle.get(), middleKey.get()};
  const PrivateKeyPointer key = makeKey(KeyKind::kEC);
  const X509Pointer certificate =
      issue(names.front(), key.get(), alternativeNames(names), &middleAuthority);
  return {pemOf(certificate.get()) + pemOf(middle.get()), pemOf(key.get(), nullptr),
          pemOf(root.get())};
}

std::string makePKCS12(const TestIdentity& identity, const std::string& password) {
  const BIOPointer source = bioOverBytes(identity.certificates);
  const X509Pointer certificate(PEM_read_bio_X509(source.get(), nullptr, nullptr, nullptr));
  const X509StackPointer others(sk_X509_new_null());
  while (X509* other = PEM_read_bio_X509(source.get(), nullptr, nullptr, nullptr)) {
    sk_X509_unshift(others.get(), other);
  }
  const BIOPointer rootSource = bioOverBytes(identity.root);
  sk_X509_unshift(others.get(), PEM_read_bio_X509(rootSource.get(), nullptr, nullptr, nullptr));
  const PrivateKeyPointer key = keyOf(identity);
  const PKCS12Pointer archive(PKCS12_create(password.c_str(), "test", key.get(), certificate.get(),
                                            others.get(), 0, 0, 0, 0, 0));
  const BIOPointer sink(BIO_new(BIO_s_mem()));
  require(archive && i2d_PKCS12_bio(sink.get(), archive.get()) == 1, "no archive");
  return textOf(sink.get());
}

std::string encryptPrivateKey(const TestIdentity& identity, const std::string& password) {
  return pemOf(keyOf(identity).get(), &password);
}

}  // namespace vel::test
