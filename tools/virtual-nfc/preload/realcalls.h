#pragma once

// The socket calls of the C library, for the interposer, whose own definitions hide them.

#include <dlfcn.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

// A sanitizer that is linked into the program itself has its own definitions under these names; ours take the
// place of the plain ones, so they would not be found by looking further.
#define VIRTUAL_NFC_CALLS(apply)                                                                      \
  apply(socket) apply(bind) apply(getsockname) apply(getpeername) apply(setsockopt) apply(getsockopt) \
      apply(sendmsg) apply(sendto) apply(send) apply(recvmsg) apply(recvfrom) apply(recv) apply(close)
#define VIRTUAL_NFC_DECLARE(name) extern "C" [[gnu::weak]] decltype(name) __interceptor_##name;
VIRTUAL_NFC_CALLS(VIRTUAL_NFC_DECLARE)

namespace virtualnfc {

/// The calls of the C library behind ours.
struct RealCalls {
// NOLINTNEXTLINE(bugprone-macro-parentheses): a name that is declared
#define VIRTUAL_NFC_MEMBER(name) decltype(&::name) name = Find(__interceptor_##name, #name);
  VIRTUAL_NFC_CALLS(VIRTUAL_NFC_MEMBER)

 private:
  template <typename Function>
  static Function* Find(Function* ofSanitizer, const char* name) {
    auto* found =
        ofSanitizer != nullptr ? ofSanitizer : reinterpret_cast<Function*>(::dlsym(RTLD_NEXT, name));
    if (found == nullptr) {
      std::fprintf(stderr, "virtual-nfc: the C library has no %s\n", name);
      std::abort();
    }
    return found;
  }
};

inline const RealCalls& Real() {
  static const RealCalls calls;
  return calls;
}

}  // namespace virtualnfc
