// A wire that speaks TLS as a client over another wire.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "support/wire.h"

namespace vel::test {

/// Which versions of TLS a client offers, and which protocols by ALPN (RFC 7301).
struct TLSOffer {
  /// OpenSSL's numbers, TLS1_2_VERSION for instance; 0 leaves the end open.
  int lowest = 0;
  int highest = 0;
  std::vector<std::string> protocols;
  /// Leaves the server's certificate unchecked, or wants the system to trust it, which fails.
  bool checksCertificate = false;
};

class TLSWire : public Wire {
 public:
  /// Shakes hands over `below`.
  /// Errors:  raises `std::runtime_error` when the handshake fails.
  explicit TLSWire(std::unique_ptr<Wire> below, const TLSOffer& offer = {});
  ~TLSWire() override;

  bool send(std::string_view bytes) override { return sendBefore(bytes, {}); }
  /// The same with `raw`, which is not encrypted, right behind it.
  bool sendBefore(std::string_view bytes, std::string_view raw);
  bool receive(std::string& received) override;
  void finishSending() override;
  void reset() override;

  /// "TLSv1.3" for instance.
  std::string version() const;
  /// The protocol that the server chose; empty for none.
  std::string protocol() const;

 private:
  struct Session;
  bool flush(std::string_view raw = {});
  bool feed();

  std::unique_ptr<Wire> below_;
  std::unique_ptr<Session> session_;
};

}  // namespace vel::test
