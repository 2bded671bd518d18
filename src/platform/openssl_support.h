// Owners of OpenSSL's objects and the words for its failures. What is done with the objects stands
// in identity.cpp, tls_context.cpp and tls_session.cpp.
#pragma once

#include <openssl/bio.h>
#include <openssl/evp.h>
#include <openssl/pkcs12.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>

#include <memory>
#include <string>
#include <string_view>

namespace vel {

template <auto kFree>
struct OpenSSLFree {
  template <typename T>
  void operator()(T* object) const {
    kFree(object);
  }
};

struct X509StackFree {
  void operator()(STACK_OF(X509) * stack) const { sk_X509_pop_free(stack, X509_free); }
};

using BIOPointer = std::unique_ptr<BIO, OpenSSLFree<BIO_free>>;
using BIOMethodPointer = std::unique_ptr<BIO_METHOD, OpenSSLFree<BIO_meth_free>>;
using PKCS12Pointer = std::unique_ptr<PKCS12, OpenSSLFree<PKCS12_free>>;
using PrivateKeyPointer = std::unique_ptr<EVP_PKEY, OpenSSLFree<EVP_PKEY_free>>;
using SSLContextPointer = std::unique_ptr<SSL_CTX, OpenSSLFree<SSL_CTX_free>>;
using X509Pointer = std::unique_ptr<X509, OpenSSLFree<X509_free>>;
using X509StackPointer = std::unique_ptr<STACK_OF(X509), X509StackFree>;

/// Comes before any other use of OpenSSL: keeps it from tearing itself down when the process ends, since
/// threads that drive loops go on until the very end.
void prepareOpenSSL() noexcept;

/// A source over `bytes`, which must outlive it; none when they are too many for OpenSSL.
BIOPointer bioOverBytes(std::string_view bytes);

/// The first failure that this thread's OpenSSL calls left behind, in words; forgets all of them.
std::string takeOpenSSLReason();

}  // namespace vel
