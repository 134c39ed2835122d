#include "tools/soak/measurements.h"

#include <fmt/format.h>

#include <algorithm>

namespace {

constexpr size_t kColumns = 72;
constexpr size_t kRows = 6;

/// A small chart of text. `marks` are drawn under it, one character for each value.
std::string MakeChart(const std::string& title, const std::vector<size_t>& values, const std::string& marks) {
  if (values.empty()) {
    return title + ": nothing measured\n";
  }
  // Several values share a column: the largest counts, so that no peak is lost.
  const size_t width = std::min(kColumns, values.size());
  std::vector<size_t> columns(width, 0);
  std::string marked(width, '-');
  for (size_t i = 0; i < values.size(); ++i) {
    const size_t column = i * width / values.size();
    columns[column] = std::max(columns[column], values[i]);
    if (marks[i] != '-') {
      marked[column] = marks[i];
    }
  }
  const auto [least, most] = std::minmax_element(columns.begin(), columns.end());
  const size_t span = std::max<size_t>(*most - *least, 1);
  std::string chart = title + "\n";
  for (size_t row = kRows; row > 0; --row) {
    const bool isLabelled = row == kRows || row == 1;
    chart += isLabelled ? fmt::format("{:>8} |", row == 1 ? *least : *most) : std::string(9, ' ') + "|";
    for (const size_t value : columns) {
      chart += 1 + (value - *least) * (kRows - 1) / span >= row ? '#' : ' ';
    }
    chart += "\n";
  }
  return chart + std::string(9, ' ') + "+" + marked + "\n";
}

}  // namespace

void Measurements::Take(const Process& daemon, unsigned starts) {
  const size_t memory = daemon.Memory("VmRSS");
  if (memory == 0) {
    return;  // it has ended
  }
  mMemory.push_back(memory);
  mDescriptors.push_back(daemon.OpenDescriptors());
  mThreads.push_back(daemon.Threads());
  mMarks += starts > mStarts ? 'R' : '-';
  mStarts = starts;
}

std::string Measurements::Charts() const {
  return MakeChart("resident memory, KiB", mMemory, mMarks) + "\n" +
         MakeChart("open descriptors", mDescriptors, mMarks) + "\n" + MakeChart("threads", mThreads, mMarks) +
         fmt::format("\nR: a daemon started; {} in all\n", mStarts);
}
