#pragma once

#include <functional>

#include "src/components/rfiderror.h"
#include "src/components/token.h"

/// The NFC controller: the daemon's way to the reader.
///
/// Threads: the operations are called on one thread at a time and may block for as long as the reader's chip
/// takes (seconds, 30 at worst). Both callbacks run on the controller's own thread, never after
/// DeinitializeController has returned. Errors: every operation but SetErrorCallback throws CRfidError.
class INfcNetlink {
 public:
  using TargetCallback = std::function<void(const CToken&)>;
  using ErrorCallback = std::function<void(const CRfidError&)>;

  virtual ~INfcNetlink() = default;

  /// Opens the controller. Every tag read goes to `onTarget`. An open controller is closed first.
  virtual void InitializeController(TargetCallback onTarget) = 0;

  /// Powers the reader and polls until StopPolling; polling goes on after each tag.
  virtual void StartPolling() = 0;

  /// When it returns, the reader does not poll and has no power, even if a tag came meanwhile.
  virtual void StopPolling() = 0;

  /// Closes the controller. Afterwards no callback runs any more and the reader is off, as far as the kernel
  /// allows. That also holds after earlier failures and when this throws. The next call retries what failed.
  /// Does nothing on a closed controller whose reader is off.
  virtual void DeinitializeController() = 0;

  /// `onError` gets every failure that ends the reading of tags while polling is wanted. Set it on a closed
  /// controller. A controller that reports no failures may ignore it.
  // NOLINTNEXTLINE(performance-unnecessary-value-param): an implementation keeps it.
  virtual void SetErrorCallback(ErrorCallback /*onError*/) {}
};
