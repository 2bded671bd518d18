#include "platform/socket_address.h"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <netdb.h>
#include <netinet/in.h>

#include <cerrno>
#include <cstring>
#include <memory>

namespace vel {
namespace {

RawAddress numericAddress(const std::string& text) {
  RawAddress address;
  auto* four = reinterpret_cast<sockaddr_in*>(&address.storage);
  auto* six = reinterpret_cast<sockaddr_in6*>(&address.storage);
  if (inet_pton(AF_INET, text.c_str(), &four->sin_addr) == 1) {
    four->sin_family = AF_INET;
    address.length = sizeof *four;
  } else if (inet_pton(AF_INET6, text.c_str(), &six->sin6_addr) == 1) {
    six->sin6_family = AF_INET6;
    address.length = sizeof *six;
  }
  return address;
}

std::vector<RawAddress> lookUp(const std::string& host, const char* service, int flags,
                               VELError* error) {
  addrinfo hints{};
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_flags = flags;
  addrinfo* list = nullptr;
  const int result = getaddrinfo(host.c_str(), service, &hints, &list);
  if (result != 0) {
    if (error) {
      *error = VELError(VELSocketErrorDomain, kVELSocketBadParameter,
                        "\"" + host + "\" has no address: " + gai_strerror(result) + ".");
    }
    return {};
  }
  const std::unique_ptr<addrinfo, void (*)(addrinfo*)> owned(list, &freeaddrinfo);
  std::vector<RawAddress> addresses;
  for (const addrinfo* entry = list; entry != nullptr; entry = entry->ai_next) {
    RawAddress address;
    std::memcpy(&address.storage, entry->ai_addr, entry->ai_addrlen);
    address.length = entry->ai_addrlen;
    addresses.push_back(address);
  }
  return addresses;
}

std::vector<RawAddress> addressesOfDevice(const std::string& name) {
  ifaddrs* list = nullptr;
  if (getifaddrs(&list) != 0) return {};
  const std::unique_ptr<ifaddrs, void (*)(ifaddrs*)> owned(list, &freeifaddrs);
  std::vector<RawAddress> addresses;
  for (const ifaddrs* entry = list; entry != nullptr; entry = entry->ifa_next) {
    if (entry->ifa_addr == nullptr || name != entry->ifa_name) continue;
    const int family = entry->ifa_addr->sa_family;
    if (family != AF_INET && family != AF_INET6) continue;
    RawAddress address;
    address.length = family == AF_INET ? sizeof(sockaddr_in) : sizeof(sockaddr_in6);
    std::memcpy(&address.storage, entry->ifa_addr, address.length);
    addresses.push_back(address);
  }
  return addresses;
}

template <class Call>
VELSocketAddress addressBy(Call call, int fd) {
  RawAddress address;
  address.length = sizeof address.storage;
  if (fd < 0 || call(fd, address.get(), &address.length) != 0) return {};
  return readableAddress(address);
}

}  // namespace

void RawAddress::setPort(uint16_t port) noexcept {
  if (family() == AF_INET) reinterpret_cast<sockaddr_in*>(&storage)->sin_port = htons(port);
  if (family() == AF_INET6) reinterpret_cast<sockaddr_in6*>(&storage)->sin6_port = htons(port);
}

uint16_t RawAddress::port() const noexcept {
  if (family() == AF_INET) return ntohs(reinterpret_cast<const sockaddr_in*>(&storage)->sin_port);
  if (family() == AF_INET6)
    return ntohs(reinterpret_cast<const sockaddr_in6*>(&storage)->sin6_port);
  return 0;
}

VELSocketAddress readableAddress(const RawAddress& address) {
  char text[INET6_ADDRSTRLEN + 1] = "";
  if (address.family() == AF_INET) {
    const auto* four = reinterpret_cast<const sockaddr_in*>(&address.storage);
    inet_ntop(AF_INET, &four->sin_addr, text, sizeof text);
  } else if (address.family() == AF_INET6) {
    const auto* six = reinterpret_cast<const sockaddr_in6*>(&address.storage);
    if (IN6_IS_ADDR_V4MAPPED(&six->sin6_addr)) {
      inet_ntop(AF_INET, six->sin6_addr.s6_addr + 12, text, sizeof text);
    } else {
      inet_ntop(AF_INET6, &six->sin6_addr, text, sizeof text);
    }
  }
  return {text, address.port()};
}

VELSocketAddress localAddressOf(int fd) { return addressBy(&getsockname, fd); }
VELSocketAddress peerAddressOf(int fd) { return addressBy(&getpeername, fd); }

std::vector<RawAddress> addressesOfInterface(const std::string& interface, VELError* error) {
  if (interface == "localhost" || interface == "loopback") {
    return {numericAddress("127.0.0.1"), numericAddress("::1")};
  }
  if (RawAddress address = numericAddress(interface); address.length != 0) return {address};
  std::vector<RawAddress> addresses = addressesOfDevice(interface);
  // Link-local IPv6 addresses with their scope ("fe80::1%eth0") are only understood here.
  if (addresses.empty()) addresses = lookUp(interface, nullptr, AI_NUMERICHOST, nullptr);
  if (addresses.empty() && error) {
    *error =
        VELError(VELSocketErrorDomain, kVELSocketBadParameter,
                 "\"" + interface + "\" is neither an interface nor an address of this machine.");
  }
  return addresses;
}

std::vector<RawAddress> addressesOfHost(const std::string& host, uint16_t port, VELError* error) {
  return lookUp(host, std::to_string(port).c_str(), AI_NUMERICSERV, error);
}

}  // namespace vel
