#pragma once

#include <json/value.h>

#include <map>
#include <string>
#include <utility>
#include <vector>

/// What measures come to: rows of one run, the same rows over several runs, a table.
namespace bench {

/// One figure of one run: the daemon's and, if there is one, the peer's that was measured in turn with it.
struct Row {
  std::string what;
  std::string unit;
  double ours = 0;
  std::string peer;  ///< empty: there is none
  double theirs = 0;
  double wanted = 0;  ///< ratio to reach, 0: none
  double limit = 0;   ///< value to stay below, 0: none
};

using Curve = std::vector<std::pair<double, double>>;

/// What one run of a measure gives.
struct Run {
  std::vector<Row> rows;
  std::map<std::string, Curve> curves;  ///< for the pictures, by name

  void Add(const Run& other);
};

Json::Value ToJson(const Run& run);
Run RunFromJson(const Json::Value& json);

/// A row over several runs.
struct Figure {
  Row row;  ///< the medians
  double ratio = 0;
  double lowestRatio = 0;
  double highestRatio = 0;
};

std::vector<Figure> Summarise(const std::vector<Run>& runs);

/// Of all runs' points the medians.
Curve MedianCurve(const std::vector<Run>& runs, const std::string& name);

/// A table in Markdown, with columns that align.
std::string Table(const std::vector<Figure>& figures);

Json::Value ToJson(const std::vector<Figure>& figures);

}  // namespace bench
