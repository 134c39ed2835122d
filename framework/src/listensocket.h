#pragma once

#include <string>

/// This process's claim on a unix socket's path.
///
/// A lock file beside the socket (`<path>.lock`) decides who owns the path: it is held by flock, so it is
/// free as soon as its owner is gone, however it went. The socket itself is made in a folder that only this
/// user can enter, gets its mode there and is then moved to its path: at no time can anybody connect whom the
/// mode keeps out, whatever the umask, and a stale socket is replaced in one step.
class CListenSocket {
 public:
  /// Creates the socket's folder where it is missing and takes the lock. Throws Rpc::ConfigurationException:
  /// in use by a running instance, or what the system refuses.
  explicit CListenSocket(std::string path);
  ~CListenSocket();  ///< removes the socket and then the lock
  CListenSocket(const CListenSocket&) = delete;
  CListenSocket& operator=(const CListenSocket&) = delete;

  /// Where the server has to listen before Publish.
  std::string TemporaryPath() const { return mTemporaryFolder + "/s"; }

  /// Moves the listening socket to its path, with mode 0660.
  void Publish();

 private:
  void TakeLock();
  void MakeTemporaryFolder();
  void RemoveTemporaryFolder();

  const std::string mPath;
  const std::string mLockPath;
  std::string mTemporaryFolder;
  int mLock = -1;
  bool mPublished = false;
};
