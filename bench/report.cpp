#include "report.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <type_traits>

#include "measuring.h"

namespace bench {

namespace {

/// With three significant digits.
std::string Number(double value) {
  const double size = std::abs(value);
  return fmt::format("{:.{}f}", value, size >= 100 || size == 0 ? 0 : size >= 10 ? 1 : size >= 1 ? 2 : 3);
}

template <typename AnyRow, typename Visit>
void ForEachField(AnyRow& row, Visit visit) {
  visit("what", row.what);
  visit("unit", row.unit);
  visit("ours", row.ours);
  visit("peer", row.peer);
  visit("theirs", row.theirs);
  visit("wanted", row.wanted);
  visit("limit", row.limit);
}

double Ratio(const Row& row) {
  return row.theirs > 0 ? row.ours / row.theirs : 0;
}

std::string Wanted(const Row& row) {
  if (row.wanted > 0) {
    return fmt::format("{:.2f}", row.wanted);
  }
  return row.limit > 0 ? fmt::format("{} {}", Number(row.limit), row.unit) : "";
}

}  // namespace

void Run::Add(const Run& other) {
  rows.insert(rows.end(), other.rows.begin(), other.rows.end());
  curves.insert(other.curves.begin(), other.curves.end());
}

Json::Value ToJson(const Run& run) {
  Json::Value json(Json::objectValue);
  json["rows"] = Json::arrayValue;
  json["curves"] = Json::objectValue;
  for (const Row& row : run.rows) {
    Json::Value& entry = json["rows"].append(Json::objectValue);
    ForEachField(row, [&](const char* name, const auto& value) { entry[name] = value; });
  }
  for (const auto& [name, curve] : run.curves) {
    Json::Value& points = json["curves"][name] = Json::arrayValue;
    for (const auto& [x, y] : curve) {
      Json::Value& point = points.append(Json::arrayValue);
      point.append(x);
      point.append(y);
    }
  }
  return json;
}

Run RunFromJson(const Json::Value& json) {
  Run run;
  for (const auto& entry : json["rows"]) {
    ForEachField(run.rows.emplace_back(), [&](const char* name, auto& value) {
      value = entry[name].template as<std::remove_reference_t<decltype(value)>>();
    });
  }
  for (const auto& name : json["curves"].getMemberNames()) {
    for (const auto& point : json["curves"][name]) {
      run.curves[name].emplace_back(point[0].asDouble(), point[1].asDouble());
    }
  }
  return run;
}

std::vector<Figure> Summarise(const std::vector<Run>& runs) {
  std::vector<Figure> figures;
  for (const Row& first : runs.front().rows) {
    std::vector<double> ours;
    std::vector<double> theirs;
    std::vector<double> ratios;
    for (const Run& run : runs) {
      for (const Row& row : run.rows) {
        if (row.what == first.what && row.peer == first.peer) {
          ours.push_back(row.ours);
          theirs.push_back(row.theirs);
          ratios.push_back(Ratio(row));
        }
      }
    }
    Figure figure{first, Median(ratios), Quantile(ratios, 0), Quantile(ratios, 1)};
    figure.row.ours = Median(ours);
    figure.row.theirs = Median(theirs);
    figures.push_back(figure);
  }
  return figures;
}

Curve MedianCurve(const std::vector<Run>& runs, const std::string& name) {
  std::map<double, std::vector<double>> values;
  for (const Run& run : runs) {
    if (const auto curve = run.curves.find(name); curve != run.curves.end()) {
      for (const auto& [x, y] : curve->second) {
        values[x].push_back(y);
      }
    }
  }
  Curve median;
  for (const auto& [x, ys] : values) {
    median.emplace_back(x, Median(ys));
  }
  return median;
}

std::string Table(const std::vector<Figure>& figures) {
  using Line = std::array<std::string, 7>;
  std::vector<Line> lines{{"measure", "rfidd", "peer", "", "ratio", "of the runs", "wanted"}};
  for (const Figure& figure : figures) {
    const Row& row = figure.row;
    Line line{row.what, fmt::format("{} {}", Number(row.ours), row.unit), row.peer, "", "", "", Wanted(row)};
    if (!row.peer.empty()) {
      line[3] = fmt::format("{} {}", Number(row.theirs), row.unit);
      line[4] = fmt::format("{:.2f}", figure.ratio);
      line[5] = fmt::format("{:.2f} to {:.2f}", figure.lowestRatio, figure.highestRatio);
    }
    lines.push_back(line);
  }
  std::array<std::size_t, 7> widths{};
  for (const Line& line : lines) {
    for (std::size_t i = 0; i < line.size(); ++i) {
      widths[i] = std::max(widths[i], line[i].size());
    }
  }
  std::string table;
  for (std::size_t l = 0; l < lines.size(); ++l) {
    for (std::size_t i = 0; i < widths.size(); ++i) {
      table += fmt::format("| {:<{}} ", lines[l][i], widths[i]);
    }
    table += "|\n";
    for (std::size_t i = 0; l == 0 && i < widths.size(); ++i) {
      table += "|" + std::string(widths[i] + 2, '-') + (i + 1 == widths.size() ? "|\n" : "");
    }
  }
  return table;
}

Json::Value ToJson(const std::vector<Figure>& figures) {
  Run medians;
  for (const Figure& figure : figures) {
    medians.rows.push_back(figure.row);
  }
  Json::Value json = ToJson(medians)["rows"];
  for (std::size_t i = 0; i < figures.size(); ++i) {
    Json::Value& entry = json[static_cast<Json::ArrayIndex>(i)];
    entry["ratio"] = figures[i].ratio;
    entry["lowestRatio"] = figures[i].lowestRatio;
    entry["highestRatio"] = figures[i].highestRatio;
  }
  return json;
}

}  // namespace bench
