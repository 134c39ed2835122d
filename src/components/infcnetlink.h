#pragma once

#include <functional>

#include "src/components/rfiderror.h"
#include "src/components/token.h"

/// The NFC controller: the daemon's way to the reader.
///
/// Threads: the operations are called on one thread at a time and may block for as long as the reader's chip
/// takes (seconds, 30 at worst). Both callbacks come on the controller's own thread, never after
/// DeinitializeController has returned. Errors: every operation but SetErrorCallback throws CRfidError.
class INfcNetlink {
 public:
  using TargetCallback = std::function<void(const CToken&)>;
  using ErrorCallback = std::function<void(const CRfidError&)>;

  virtual ~INfcNetlink() = default;

  /// Opens the controller. Every tag read goes to `onTarget`. On an open controller the earlier opening is
  /// ended first.
  virtual void InitializeController(TargetCallback onTarget) = 0;

  /// Powers the reader and polls until StopPolling; polling goes on after each tag.
  virtual void StartPolling() = 0;

  /// No polling and no power when it returns, whatever tag arrives meanwhile.
  virtual void StopPolling() = 0;

  /// Closes the controller. The reader is off afterwards and no callback runs any more, also when something
  /// failed before or it throws, as far as the kernel allows: what failed is tried again by the next call. On
  /// a closed controller whose reader is off it does nothing.
  virtual void DeinitializeController() = 0;

  /// `onError` is told of whatever ends the reading of tags while polling is wanted. Set it on a closed
  /// controller. A controller that never reports failures need not know it.
  virtual void SetErrorCallback(ErrorCallback /*onError*/) {}
};
