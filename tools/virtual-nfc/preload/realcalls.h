#pragma once

// The socket calls of the C library, which the interposer's own definitions hide.

#include <dlfcn.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

// A sanitizer in the program has its own definitions under these names. Ours replace them, so dlsym would
// skip them.
#define VIRTUAL_NFC_CALLS(apply)                                                                          \
  apply(socket) apply(bind) apply(getsockname) apply(setsockopt) apply(sendmsg) apply(sendto) apply(send) \
      apply(recvmsg) apply(recvfrom) apply(recv) apply(close)
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
