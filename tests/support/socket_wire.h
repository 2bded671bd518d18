// A wire over a TCP socket.
#pragma once

#include <cstdint>
#include <string>

#include "support/wire.h"

namespace vel::test {

class SocketWire : public Wire {
 public:
  /// Connects to `port` of the numeric address `host`.
  /// Errors:  raises `std::system_error` when nobody listens there.
  SocketWire(const std::string& host, uint16_t port);
  SocketWire(const SocketWire&) = delete;
  SocketWire& operator=(const SocketWire&) = delete;
  ~SocketWire() override;

  bool send(std::string_view bytes) override;
  bool receive(std::string& received) override;
  void finishSending() override;
  void reset() override;

  /// The port of this end.
  uint16_t localPort() const;

 private:
  int descriptor_;
};

}  // namespace vel::test
