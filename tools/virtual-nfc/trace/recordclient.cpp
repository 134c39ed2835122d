#include "tools/virtual-nfc/trace/recordclient.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <poll.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <optional>
#include <string_view>
#include <system_error>

#include "tools/virtual-nfc/server/controlprotocol.h"
#include "tools/virtual-nfc/server/unixsocket.h"
#include "tools/virtual-nfc/trace/recorder.h"

namespace virtualnfc {

namespace {

/// A pipe that can be written to takes so much without waiting.
constexpr std::size_t kMaxWrite = 4096;

RecordEnd Fail(RecordEnd end, const std::string& reason) {
  fmt::print(stderr, "virtual-nfc: {}\n", reason);
  return end;
}

std::string ErrorText() {
  return std::generic_category().message(errno);
}

UniqueFd TakeSignals() {
  ::signal(SIGPIPE, SIG_IGN);
  sigset_t ending;
  sigemptyset(&ending);
  sigaddset(&ending, SIGINT);
  sigaddset(&ending, SIGTERM);
  ::pthread_sigmask(SIG_BLOCK, &ending, nullptr);
  return UniqueFd(::signalfd(-1, &ending, SFD_CLOEXEC));
}

/// What the server sends, divided into its answer, the record, and the line that ends it.
class Stream {
 public:
  void Add(std::string_view text) { mText += text; }

  /// Whole lines of the record, up to a limit; the beginning of one that is longer than that.
  std::string_view Ready() {
    if (!mIsAnswered && mText.find('\n') != std::string::npos) {
      const std::string first = TakeLine();
      mIsAnswered = true;
      if (first != "ok") mEnd = first;
    }
    const std::string_view text = mText;
    if (mEnd || !mIsAnswered || text.empty()) return {};
    // Lines of a record begin with a time, a blank or '#', and its first line with the tool's name.
    if (mIsAtLineStart &&
        (text.starts_with("done\n") || (text.starts_with("error: ") && text.ends_with('\n')))) {
      mEnd = TakeLine();
      return {};
    }
    const std::size_t last = text.substr(0, kMaxWrite).rfind('\n');
    if (last == std::string_view::npos) return text.size() >= kMaxWrite ? text.substr(0, kMaxWrite) : "";
    std::size_t end = last + 1;
    for (const std::string_view ending : {"\ndone\n", "\nerror: "}) {
      end = std::min(end, std::min(text.find(ending), text.size()) + 1);
    }
    return text.substr(0, end);
  }
  void Written(std::size_t count) {
    mIsAtLineStart = mText[count - 1] == '\n';
    mText.erase(0, count);
  }
  /// The line that ended it.
  const std::optional<std::string>& End() const { return mEnd; }

 private:
  std::string TakeLine() {
    const std::size_t end = mText.find('\n');
    std::string line = mText.substr(0, end);
    mText.erase(0, end + 1);
    return line;
  }

  std::string mText;
  bool mIsAnswered = false;
  bool mIsAtLineStart = true;
  std::optional<std::string> mEnd;
};

}  // namespace

RecordEnd RecordTo(const std::string& address, const std::string& file, std::uint32_t count) {
  const UniqueFd signals = TakeSignals();
  const UniqueFd server = ConnectUnix(ControlAddress(address), SOCK_STREAM);
  const std::string line = count == 0 ? "record\n" : fmt::format("record {}\n", count);
  if (!server || ::send(server.Get(), line.data(), line.size(), MSG_NOSIGNAL) < 0) {
    return Fail(RecordEnd::NoServer, fmt::format("cannot reach a server at {}: {}", address, ErrorText()));
  }
  UniqueFd opened;
  if (!file.empty()) {
    opened.Reset(::open(file.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666));
    if (!opened) return Fail(RecordEnd::Refused, fmt::format("cannot write to {}: {}", file, ErrorText()));
  }
  const int output = opened ? opened.Get() : STDOUT_FILENO;

  Stream stream;
  for (;;) {
    const std::string_view ready = stream.Ready();
    if (stream.End()) {
      return *stream.End() == kRecordDone ? RecordEnd::Done : Fail(RecordEnd::Refused, *stream.End());
    }
    pollfd waiting[] = {{signals.Get(), POLLIN, 0},
                        {output, static_cast<short>(ready.empty() ? 0 : POLLOUT), 0},
                        {ready.empty() ? server.Get() : -1, POLLIN, 0}};
    if (::poll(waiting, std::size(waiting), -1) < 0 && errno != EINTR) {
      return Fail(RecordEnd::Refused, ErrorText());
    }
    if (waiting[0].revents != 0) return RecordEnd::Done;
    if ((waiting[1].revents & POLLOUT) != 0) {
      const ssize_t written = ::write(output, ready.data(), ready.size());
      if (written < 0 && errno == EPIPE) return RecordEnd::Done;
      if (written < 0 && errno != EAGAIN) {
        return Fail(RecordEnd::Refused, fmt::format("cannot write the record: {}", ErrorText()));
      }
      if (written > 0) stream.Written(static_cast<std::size_t>(written));
    } else if ((waiting[1].revents & (POLLERR | POLLHUP)) != 0) {
      // Nobody reads it any more.
      return RecordEnd::Done;
    } else if (waiting[2].revents != 0) {
      char chunk[16384];
      const ssize_t length = ::recv(server.Get(), chunk, sizeof(chunk), 0);
      if (length <= 0) return Fail(RecordEnd::NoServer, "the server has ended, and with it the record");
      stream.Add(std::string_view(chunk, static_cast<std::size_t>(length)));
    }
  }
}

}  // namespace virtualnfc
