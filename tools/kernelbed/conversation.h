#pragma once

// Questions to a kernel, and its answers in words that are the same for every kernel that answers the same.

#include <map>
#include <string>
#include <vector>

#include "tools/kernelbed/kernelbench.h"
#include "tools/virtual-nfc/trace/netlinktext.h"

/// One talk with a kernel by programs 'a', 'b' and so on, each with a socket of its own; 'e' listens to the
/// events. One thread.
class Conversation {
 public:
  explicit Conversation(KernelBench& bench);
  /// Leaves the reader off.
  ~Conversation();
  Conversation(const Conversation&) = delete;
  Conversation& operator=(const Conversation&) = delete;

  /// Does one step and adds what came of it to what was heard:
  ///   a up|down|start [mask=N]|stop|device|devices|targets
  ///                       program a asks; "devices" and "targets" are dumps
  ///   a ~ stop            the same, again and again while the answer is EBUSY
  ///   a ! start           a signal reaches program a while it waits
  ///   a close             its socket is closed
  ///   event               the next event; it must come
  ///   silence             no event comes for as long as the reader may take to find a tag
  ///   pause [N]           what the kernel does by itself has passed, N times as long
  ///   tags [NAME...]      these lie on the reader; also: plug, unplug
  ///   anything else       goes wrong at the reader, see KernelBench
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
  std::vector<std::string> Ask(const Program& program, const virtualnfc::Bytes& request) const;
  std::string Describe(const virtualnfc::Bytes& datagram, std::uint32_t port) const;
  void Note(const std::string& what, const std::vector<std::string>& answers);
  std::vector<std::string> Command(Program& program, const std::vector<std::string>& words);
  void AwaitEvent();

  KernelBench& mBench;
  KernelIds mIds;
  std::map<char, Program> mPrograms;
  std::vector<std::string> mHeard;
};
