#include "tools/virtual-station/logtail.h"

#include <sys/stat.h>

#include <fstream>
#include <regex>

#include "tools/common/output.h"

namespace {

constexpr std::uint64_t kMost = 64UL * 1024;  ///< bytes per call
constexpr std::size_t kLongestLine = 4096;

std::string Plain(const std::string& line) {
  static const std::regex kColours("\x1b\\[[0-9;]*m");
  return Printable(std::regex_replace(line.substr(0, kLongestLine), kColours, ""));
}

}  // namespace

std::vector<std::string> LogTail::Read() {
  struct stat data {};
  if (stat(mFile.c_str(), &data) != 0 || !S_ISREG(data.st_mode)) {
    return {};
  }
  const auto size = static_cast<std::uint64_t>(data.st_size);
  if (data.st_ino != mInode || size < mPosition) {
    mInode = data.st_ino;
    mPosition = 0;
    mPart.clear();
  }
  bool skipped = false;
  if (size - mPosition > kMost) {
    mPosition = size - kMost;
    mPart.clear();
    skipped = true;
  }
  std::ifstream file(mFile, std::ios::binary);
  std::string text(static_cast<std::size_t>(size - mPosition), '\0');
  file.seekg(static_cast<std::streamoff>(mPosition));
  file.read(text.data(), static_cast<std::streamsize>(text.size()));
  text.resize(static_cast<std::size_t>(file.gcount()));
  mPosition += text.size();

  std::vector<std::string> lines;
  text.insert(0, mPart);
  std::size_t begin = skipped ? std::min(text.find('\n'), text.size() - 1) + 1 : 0;
  for (std::size_t end = 0; (end = text.find('\n', begin)) != std::string::npos; begin = end + 1) {
    lines.push_back(Plain(text.substr(begin, end - begin)));
  }
  mPart = text.substr(begin, kLongestLine);
  return lines;
}
