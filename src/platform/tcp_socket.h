// TcpSocket: a stream socket over the sockets of the system, which can listen and connect as well.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "platform/stream_socket.h"

namespace vel {

class TcpSocket final : public StreamSocket {
 public:
  TcpSocket(std::weak_ptr<VELSocketDelegate> delegate, std::shared_ptr<VELSerialQueue> queue);
  /// Takes over an accepted descriptor.
  TcpSocket(int fd, std::shared_ptr<VELSerialQueue> queue);
  ~TcpSocket() override;

  bool acceptOnInterface(const std::optional<std::string>& interface, uint16_t port,
                         VELError* error) override;
  bool connectToHost(const std::string& host, uint16_t port, std::chrono::milliseconds timeout,
                     VELError* error) override;
  VELSocketAddress localAddress() const override;
  VELSocketAddress peerAddress() const override;

  // For the listener and the connector of this socket, on its queue.
  void didAccept(int fd);
  void didConnect(int fd, const std::string& host, uint16_t port);
  void didFailToConnect(VELError error);

 private:
  std::shared_ptr<TcpSocket> self();

  ptrdiff_t receiveBytes(void* buffer, size_t capacity) noexcept override;
  ptrdiff_t sendBytes(const iovec* vectors, int count, bool has_more) noexcept override;
  ptrdiff_t sendRegion(const RegionRest& rest) override;
  void finishSending() noexcept override;
  bool watch(EventLoop& loop) noexcept override;
  void stopWatching(EventLoop& loop) noexcept override;
  void closeTransport() noexcept override;
  void stopListening() override;

  std::atomic<int> fd_{-1};
};

}  // namespace vel
