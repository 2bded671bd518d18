// Listener: the listening descriptors of one socket, one for each address.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "corvane/error.h"
#include "corvane/socket.h"

class VELSerialQueue;

namespace vel {

class ListeningPort;
class TcpSocket;
struct RawAddress;

/// Owner:   a listening TcpSocket, on whose queue the connections arrive.
class Listener {
 public:
  explicit Listener(std::weak_ptr<TcpSocket> socket) : socket_(std::move(socket)) {}
  ~Listener();
  Listener(const Listener&) = delete;
  Listener& operator=(const Listener&) = delete;

  /// Binds and listens; port 0 gives every address the same port of the system's choice.
  bool open(const std::optional<std::string>& interface, uint16_t port,
            const std::shared_ptr<VELSerialQueue>& queue, VELError* error);
  /// Where it listened first. Queue: any, once it is open.
  const VELSocketAddress& address() const noexcept { return address_; }
  void close();

 private:
  bool openAll(std::vector<RawAddress>& addresses, uint16_t port, int* error_number);

  const std::weak_ptr<TcpSocket> socket_;
  VELSocketAddress address_;
  std::vector<int> opened_;
  std::vector<std::shared_ptr<ListeningPort>> ports_;
};

}  // namespace vel
