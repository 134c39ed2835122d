#include "tools/virtual-nfc/trace/recordclient.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <string_view>
#include <system_error>

#include "tools/virtual-nfc/server/controlprotocol.h"
#include "tools/virtual-nfc/server/unixsocket.h"
#include "tools/virtual-nfc/trace/recorder.h"

namespace virtualnfc {

namespace {

RecordEnd Fail(RecordEnd end, std::string_view reason) {
  fmt::print(stderr, "virtual-nfc: {}\n", reason);
  return end;
}

std::string ErrorText() {
  return std::generic_category().message(errno);
}

/// @returns false with errno when not everything could be written
bool WriteAll(int fd, std::string_view text) {
  while (!text.empty()) {
    const ssize_t written = ::write(fd, text.data(), text.size());
    if (written < 0 && errno != EINTR) {
      return false;
    }
    text.remove_prefix(written > 0 ? static_cast<std::size_t>(written) : 0);
  }
  return true;
}

}  // namespace

RecordEnd RecordTo(const std::string& address, const std::string& file, std::uint32_t count) {
  // Every received line is written at once, so there is nothing to save.
  for (const int ending : {SIGINT, SIGTERM}) {
    ::signal(ending, [](int) { ::_exit(0); });
  }
  ::signal(SIGPIPE, SIG_IGN);
  const UniqueFd server = ConnectUnix(ControlAddress(address), SOCK_STREAM);
  const std::string line = fmt::format("record {}\n", count);
  if (!server || ::send(server.Get(), line.data(), line.size(), MSG_NOSIGNAL) < 0) {
    return Fail(RecordEnd::NoServer, fmt::format("cannot reach a server at {}: {}", address, ErrorText()));
  }
  UniqueFd opened;
  if (!file.empty()) {
    opened.Reset(::open(file.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666));
    if (!opened) {
      return Fail(RecordEnd::Refused, fmt::format("cannot write to {}: {}", file, ErrorText()));
    }
  }
  std::string pending;
  std::string last;
  for (;;) {
    char chunk[16384];
    const ssize_t length = ::recv(server.Get(), chunk, sizeof(chunk), 0);
    if (length <= 0) {
      break;
    }
    pending.append(chunk, static_cast<std::size_t>(length));
    const std::size_t end = pending.rfind('\n') + 1;
    if (end == 0) {
      continue;
    }
    const std::size_t begin = end < 2 ? 0 : pending.rfind('\n', end - 2) + 1;
    last = pending.substr(begin, end - begin);
    if (!WriteAll(opened ? opened.Get() : STDOUT_FILENO, std::string_view(pending).substr(0, end))) {
      return errno == EPIPE
                 ? RecordEnd::Done
                 : Fail(RecordEnd::Refused, fmt::format("cannot write the record: {}", ErrorText()));
    }
    pending.erase(0, end);
  }
  if (last == kRecordDone) {
    return RecordEnd::Done;
  }
  return last.starts_with(kRecordError)
             ? Fail(RecordEnd::Refused,
                    last.substr(kRecordError.size(), last.size() - kRecordError.size() - 1))
             : Fail(RecordEnd::NoServer, "the server has ended, and with it the record");
}

}  // namespace virtualnfc
