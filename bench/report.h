#pragma once

#include <json/value.h>

#include <map>
#include <string>
#include <utility>
#include <vector>

/// Results: the rows of one run, the same rows over several runs, a table.
namespace bench {

/// One figure of one run: the daemon's and, if there is a peer, the peer's. The two are measured in turn.
struct Row {
  std::string what;
  std::string unit;
  double ours = 0;
  std::string peer;  ///< empty: no peer
  double theirs = 0;
  double wanted = 0;  ///< ratio to reach; 0: none
  double limit = 0;   ///< upper bound of our value; 0: none
};

using Curve = std::vector<std::pair<double, double>>;

/// The results of one run.
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

/// The medians over all runs.
Curve MedianCurve(const std::vector<Run>& runs, const std::string& name);

/// A Markdown table with aligned columns.
std::string Table(const std::vector<Figure>& figures);

Json::Value ToJson(const std::vector<Figure>& figures);

}  // namespace bench
