// Certificates for tests, made when they are needed: no key lies in the source tree, none expires.
#pragma once

#include <string>
#include <vector>

namespace vel::test {

enum class KeyKind { kEC, kRSA };

/// PEM texts.
struct TestIdentity {
  /// The certificate and what stands between it and the root.
  std::string certificates;
  std::string privateKey;
  /// What a client must trust; the certificate itself when it is self-signed.
  std::string root;
};

/// A self-signed identity for `names`: host names and addresses.
TestIdentity makeSelfSignedIdentity(KeyKind kind, const std::vector<std::string>& names);

/// An identity for `names` that an intermediate authority issued.
TestIdentity makeChainedIdentity(const std::vector<std::string>& names);

/// `identity` as a PKCS#12 archive, its root included, the chain in reverse.
std::string makePKCS12(const TestIdentity& identity, const std::string& password);

/// The key of `identity`, encrypted.
std::string encryptPrivateKey(const TestIdentity& identity, const std::string& password);

}  // namespace vel::test
