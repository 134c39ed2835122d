#include "systemlog.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <system_error>

namespace bench {

SystemLog::SystemLog() : mSocket(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strcpy(address.sun_path, _PATH_LOG);
  if (bind(mSocket, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    const int error = errno;
    close(mSocket);
    throw std::system_error(error, std::generic_category(), _PATH_LOG);
  }
  mThread = std::thread([this] {
    std::array<char, 65536> line;
    while (recv(mSocket, line.data(), line.size(), 0) > 0) {
    }
  });
}

SystemLog::~SystemLog() {
  shutdown(mSocket, SHUT_RDWR);  // ends recv
  mThread.join();
  close(mSocket);
  unlink(_PATH_LOG);
}

}  // namespace bench
