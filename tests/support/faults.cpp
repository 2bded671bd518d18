#include "support/faults.h"

#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/types.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <new>
#include <thread>

namespace vel::test {
namespace {

// Written while nothing strikes.
struct Plan {
  std::atomic<bool> is_armed{false};
  Fault kind = Fault::kReceive;
  int error = 0;
  std::thread::id owner;
  std::atomic<int> rest{0};
};
Plan g_plan;

bool strikes(Fault kind) {
  if (!g_plan.is_armed.load(std::memory_order_acquire) || g_plan.kind != kind) return false;
  if (g_plan.owner == std::this_thread::get_id() || g_plan.rest.fetch_sub(1) != 1) return false;
  errno = g_plan.error;
  return true;
}

}  // namespace

ArmedFault::ArmedFault(Fault kind, int nth, int error) {
  g_plan.kind = kind;
  g_plan.error = error;
  g_plan.owner = std::this_thread::get_id();
  g_plan.rest = nth;
  g_plan.is_armed.store(true, std::memory_order_release);
}

// The server has to be at rest.
ArmedFault::~ArmedFault() { g_plan.is_armed.store(false, std::memory_order_release); }

bool ArmedFault::hasStruck() const { return g_plan.rest.load() <= 0; }

}  // namespace vel::test

using vel::test::Fault;
using vel::test::strikes;

// NOLINTBEGIN(bugprone-reserved-identifier): the linker's names
extern "C" {

// Never more than six arguments; what is there of them is handed on.
long __real_syscall(long number, long a, long b, long c, long d, long e, long f);
long __wrap_syscall(long number, long a, long b, long c, long d, long e, long f) {
  const bool fails = (number == SYS_recvfrom && strikes(Fault::kReceive)) ||
                     (number == SYS_sendto && strikes(Fault::kSend)) ||
                     (number == SYS_openat2 && strikes(Fault::kOpen));
  return fails ? -1 : __real_syscall(number, a, b, c, d, e, f);
}

ssize_t __real_sendmsg(int fd, const msghdr* message, int flags);
ssize_t __wrap_sendmsg(int fd, const msghdr* message, int flags) {
  return strikes(Fault::kSend) ? -1 : __real_sendmsg(fd, message, flags);
}

ssize_t __real_sendfile(int to, int from, off_t* position, size_t length);
ssize_t __wrap_sendfile(int to, int from, off_t* position, size_t length) {
  return strikes(Fault::kSend) ? -1 : __real_sendfile(to, from, position, length);
}

int __real_accept4(int fd, sockaddr* address, socklen_t* length, int flags);
int __wrap_accept4(int fd, sockaddr* address, socklen_t* length, int flags) {
  return strikes(Fault::kAccept) ? -1 : __real_accept4(fd, address, length, flags);
}

int __real_epoll_ctl(int epoll, int operation, int fd, epoll_event* event);
int __wrap_epoll_ctl(int epoll, int operation, int fd, epoll_event* event) {
  const bool fails = operation == EPOLL_CTL_ADD && strikes(Fault::kWatch);
  return fails ? -1 : __real_epoll_ctl(epoll, operation, fd, event);
}

int __real_open(const char* path, int flags, ...);
int __wrap_open(const char* path, int flags, ...) {
  va_list rest;
  va_start(rest, flags);
  const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(rest, mode_t) : 0;
  va_end(rest);
  return strikes(Fault::kOpen) ? -1 : __real_open(path, flags, mode);
}

ssize_t __real_write(int fd, const void* buffer, size_t length);
ssize_t __wrap_write(int fd, const void* buffer, size_t length) {
  // The loops wake each other with writes of eight bytes.
  const bool fails = length > sizeof(uint64_t) && strikes(Fault::kWrite);
  return fails ? -1 : __real_write(fd, buffer, length);
}

// operator new and operator new[].
void* __real__Znwm(size_t length);
void* __wrap__Znwm(size_t length) {
  const bool fails = length >= vel::test::kBufferAllocation && strikes(Fault::kAllocation);
  if (fails) throw std::bad_alloc();
  return __real__Znwm(length);
}

void* __real__Znam(size_t length);
void* __wrap__Znam(size_t length) {
  const bool fails = length >= vel::test::kBufferAllocation && strikes(Fault::kAllocation);
  if (fails) throw std::bad_alloc();
  return __real__Znam(length);
}
}
// NOLINTEND(bugprone-reserved-identifier)
