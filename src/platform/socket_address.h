// Addresses of sockets: what interfaces and names stand for, and how an address reads.
#pragma once

#include <sys/socket.h>

#include <optional>
#include <string>
#include <vector>

#include "corvane/error.h"
#include "corvane/socket.h"

namespace vel {

/// An address as the system's calls take it.
struct RawAddress {
  sockaddr_storage storage{};
  socklen_t length = 0;

  int family() const noexcept { return storage.ss_family; }
  const sockaddr* get() const noexcept { return reinterpret_cast<const sockaddr*>(&storage); }
  sockaddr* get() noexcept { return reinterpret_cast<sockaddr*>(&storage); }
  void setPort(uint16_t port) noexcept;
  uint16_t port() const noexcept;
};

/// IPv4 addresses that came through an IPv6 socket read as IPv4.
VELSocketAddress readableAddress(const RawAddress& address);
/// Empty when `fd` is not bound or not connected.
VELSocketAddress localAddressOf(int fd);
VELSocketAddress peerAddressOf(int fd);

/// The addresses to listen on for an interface's name, an address, "localhost", "loopback" or none.
/// None means that every address is wanted.
/// Errors:  empty, with `error` set, for what is neither.
std::vector<RawAddress> addressesOfInterface(const std::string& interface, VELError* error);
/// Blocks while the name is looked up.
std::vector<RawAddress> addressesOfHost(const std::string& host, uint16_t port, VELError* error);

}  // namespace vel
