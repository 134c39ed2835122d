#include "tools/kernelbed/program.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <poll.h>
#include <sys/socket.h>

#include <array>
#include <iostream>

#include "tools/common/commandline.h"
#include "tools/virtual-nfc/server/unixsocket.h"

namespace kernelbed {

namespace {

constexpr int kDone = 0;
constexpr int kRefused = 1;

/// One line for each connection, which ends with the reply.
std::string ReceiveLine(int connection) {
  std::string line;
  std::array<char, 512> part;
  for (ssize_t length = 1; length > 0 && line.find('\n') == std::string::npos;) {
    length = recv(connection, part.data(), part.size(), 0);
    line.append(part.data(), static_cast<size_t>(std::max<ssize_t>(length, 0)));
  }
  return line.substr(0, line.find('\n'));
}

void SendLine(int connection, const std::string& line) {
  const auto whole = line + "\n";
  (void)!send(connection, whole.data(), whole.size(), MSG_NOSIGNAL);
}

void Serve(Reader& reader, const std::string& address) {
  const virtualnfc::UnixListener listener(address, SOCK_STREAM);
  for (;;) {
    pollfd waiting{listener.Fd(), POLLIN, 0};
    poll(&waiting, 1, -1);
    const auto connection = listener.Accept();
    if (!connection) {
      continue;
    }
    fcntl(connection.Get(), F_SETFL, 0);  // the listener's connections do not wait
    const auto line = ReceiveLine(connection.Get());
    if (line == "quit") {
      SendLine(connection.Get(), "ok");
      return;
    }
    try {
      const auto told = reader.Command(line);
      SendLine(connection.Get(), told.empty() ? "ok" : "ok " + told);
    } catch (const std::exception& e) {
      SendLine(connection.Get(), std::string("error: ") + e.what());
    }
  }
}

int Ask(const std::string& address, const std::string& line) {
  const auto connection = virtualnfc::ConnectUnix(address, SOCK_STREAM);
  if (!connection) {
    throw std::runtime_error("nobody listens at " + address);
  }
  SendLine(connection.Get(), line);
  const auto reply = ReceiveLine(connection.Get());
  std::cout << reply << '\n';
  return reply.starts_with("ok") ? kDone : kRefused;
}

int Run(int argc, char** argv, const std::string& name, const std::string& words,
        const std::function<std::unique_ptr<Reader>(FILE*)>& make) {
  CLI::App app(
      "A reader for the real kernel's NFC subsystem, with its tags, in the guest of tools/kernelbed.", name);
  SetUpTool(app);
  app.footer(std::string(kReaderWords) + words);
  std::string address = "/run/reader.sock";
  std::string logFile;
  std::vector<std::string> command;
  app.add_option("--socket", address, "where commands are taken")->capture_default_str();
  app.add_option("--log", logFile, "write everything between kernel and tags to this file");
  app.add_option("COMMAND", command, "for the program that runs; without, be the reader until \"quit\"");
  if (const auto ended = ParseCommandLine(app, argc, argv)) {
    return *ended;
  }
  if (!command.empty()) {
    return Ask(address, fmt::format("{}", fmt::join(command, " ")));
  }
  const std::unique_ptr<FILE, int (*)(FILE*)> log(logFile.empty() ? nullptr : fopen(logFile.c_str(), "w"),
                                                  fclose);
  if (!logFile.empty() && !log) {
    throw std::runtime_error("cannot write to " + logFile);
  }
  const auto reader = make(log.get());
  reader->Command("plug");
  Serve(*reader, address);
  return kDone;
}

}  // namespace

int RunReaderProgram(int argc, char** argv, const std::string& name, const std::string& words,
                     const std::function<std::unique_ptr<Reader>(FILE*)>& make) {
  try {
    return Run(argc, argv, name, words, make);
  } catch (const std::exception& e) {
    std::cerr << name << ": " << e.what() << '\n';
    return kRefused;
  }
}

}  // namespace kernelbed
