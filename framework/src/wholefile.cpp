#include "wholefile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <stdexcept>
#include <system_error>

namespace {

class CDescriptor {
 public:
  explicit CDescriptor(int descriptor) : mDescriptor(descriptor) {}
  ~CDescriptor() { close(mDescriptor); }
  CDescriptor(const CDescriptor&) = delete;
  CDescriptor& operator=(const CDescriptor&) = delete;
  int Get() const { return mDescriptor; }

 private:
  const int mDescriptor;
};

template <typename Result>
Result Checked(Result result) {
  return result >= 0 ? result : throw std::system_error(errno, std::generic_category());
}

}  // namespace

std::string ReadWholeFile(const std::string& path, std::size_t limitMiB) {
  const CDescriptor file(Checked(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK)));
  struct stat status {};
  Checked(fstat(file.Get(), &status));
  if (!S_ISREG(status.st_mode)) {
    throw std::runtime_error(S_ISDIR(status.st_mode) ? "it is a folder" : "it is not a regular file");
  }
  const auto limit = limitMiB * 1024 * 1024;
  auto size = static_cast<std::size_t>(status.st_size);
  std::string content;
  for (;;) {
    if (size > limit) {
      throw std::runtime_error("it is larger than " + std::to_string(limitMiB) + " MiB");
    }
    content.reserve(size);  // growing would hold the file twice
    char buffer[16384];
    const ssize_t count = read(file.Get(), buffer, sizeof buffer);
    if (count == 0) {
      return content;
    }
    if (count < 0 && errno == EINTR) {
      continue;
    }
    content.append(buffer, static_cast<std::size_t>(Checked(count)));
    size = std::max(size, content.size());
  }
}
