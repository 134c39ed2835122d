#pragma once

// Commands to a kernel, and its answers as text. Equal answers give equal text, so kernels can be compared.

#include <map>
#include <string>
#include <vector>

#include "tools/kernelbed/kernelbench.h"

/// A conversation of programs 'a', 'b' and so on with a kernel. Each has its own socket; 'e' listens to the
/// events. One thread.
class Conversation {
 public:
  explicit Conversation(KernelBench& bench);
  /// Powers the reader down.
  ~Conversation();
  Conversation(const Conversation&) = delete;
  Conversation& operator=(const Conversation&) = delete;

  /// Does one step and adds the answers to Heard():
  ///   a up|down|start [mask=N]|stop|device|devices|targets
  ///                       program a sends a command; "devices" and "targets" are dumps
  ///   a ~ stop            the same, repeated while the answer is EBUSY
  ///   a ! start           a signal reaches program a while it waits
  ///   a close             program a closes its socket
  ///   event               the next event; it must come
  ///   silence             no event comes within the time in which the reader finds a tag
  ///   pause [N]           waits, N times as long as the kernel needs to settle
  ///   tags [NAME...]      puts these tags on the reader; also: plug, unplug
  ///   anything else       a fault of the reader, see KernelBench
  void Do(const std::string& step);
  /// Program a sends these bytes.
  void Send(const std::string& name, const virtualnfc::Bytes& bytes);

  const std::vector<std::string>& Heard() const { return mHeard; }
  const KernelIds& Ids() const { return mIds; }

 private:
  struct Program {
    virtualnfc::UniqueFd socket;
    std::uint32_t port = 0;
  };

  Program& Of(char name);
  void Resolve();
  static void Write(const Program& program, const virtualnfc::Bytes& request);
  static std::vector<std::string> Ask(const Program& program, const virtualnfc::Bytes& request);
  void Note(const std::string& what, const std::vector<std::string>& answers);
  std::vector<std::string> Command(Program& program, const std::vector<std::string>& words);
  void AwaitEvent();

  KernelBench& mBench;
  KernelIds mIds;
  std::map<char, Program> mPrograms;
  std::vector<std::string> mHeard;
};
