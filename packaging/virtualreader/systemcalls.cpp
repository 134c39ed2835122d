// The calls behind the interposer's in a static program, which has no second definition of them to look up.

#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

// tools/virtual-nfc/preload/realcalls.h looks for these names first.
// NOLINTBEGIN(bugprone-reserved-identifier)
extern "C" {

int __interceptor_socket(int domain, int type, int protocol) {
  return static_cast<int>(syscall(SYS_socket, domain, type, protocol));
}

int __interceptor_bind(int fd, const sockaddr* address, socklen_t length) {
  return static_cast<int>(syscall(SYS_bind, fd, address, length));
}

int __interceptor_getsockname(int fd, sockaddr* address, socklen_t* length) {
  return static_cast<int>(syscall(SYS_getsockname, fd, address, length));
}

int __interceptor_setsockopt(int fd, int level, int option, const void* value, socklen_t length) {
  return static_cast<int>(syscall(SYS_setsockopt, fd, level, option, value, length));
}

ssize_t __interceptor_sendmsg(int fd, const msghdr* message, int flags) {
  return syscall(SYS_sendmsg, fd, message, flags);
}

ssize_t __interceptor_sendto(int fd, const void* data, size_t size, int flags, const sockaddr* address,
                             socklen_t length) {
  return syscall(SYS_sendto, fd, data, size, flags, address, length);
}

ssize_t __interceptor_send(int fd, const void* data, size_t size, int flags) {
  return __interceptor_sendto(fd, data, size, flags, nullptr, 0);
}

ssize_t __interceptor_recvmsg(int fd, msghdr* message, int flags) {
  return syscall(SYS_recvmsg, fd, message, flags);
}

ssize_t __interceptor_recvfrom(int fd, void* data, size_t size, int flags, sockaddr* address,
                               socklen_t* length) {
  return syscall(SYS_recvfrom, fd, data, size, flags, address, length);
}

ssize_t __interceptor_recv(int fd, void* data, size_t size, int flags) {
  return __interceptor_recvfrom(fd, data, size, flags, nullptr, nullptr);
}

int __interceptor_close(int fd) {
  return static_cast<int>(syscall(SYS_close, fd));
}

}  // extern "C"
// NOLINTEND(bugprone-reserved-identifier)
