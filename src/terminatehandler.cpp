#include "src/terminatehandler.h"

#include <cstdlib>
#include <exception>
#include <string>
#include <typeinfo>

#include "framework/log.h"
#include "src/servicenotify.h"

void HandleTerminate() {
  if (const auto exception = std::current_exception()) {
    try {
      std::rethrow_exception(exception);
    } catch (const std::exception& e) {
      const char* mangled = typeid(e).name();
      if (*mangled == '*') {
        ++mangled;
      }
      const auto name = Log::Demangle(mangled);
      Log::Critical("Uncaught exception of type '{}' with message: '{}'", name ? name.get() : "", e.what());
      // The journal may not attribute the last lines to the daemon once it is gone; the status line stays.
      CServiceNotify().TellFailure(e.what());
    } catch (...) {
      Log::Critical("Uncaught exception of unknown type.");
    }
  }
  Log::Critical("Aborting process.");
  std::abort();
}
