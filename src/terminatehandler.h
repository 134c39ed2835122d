#pragma once

/// The last resort, for std::set_terminate: logs what ended the process at critical and aborts.
[[noreturn]] void HandleTerminate();
