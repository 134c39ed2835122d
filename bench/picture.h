#pragma once

#include <string>
#include <vector>

#include "report.h"

/// Pictures for the documentation, as SVG.
namespace bench {

struct NamedCurve {
  std::string name;
  Curve points;
};

/// Curves over two logarithmic axes. `unit` belongs to the vertical axis.
std::string MakeCurves(const std::string& title, const std::string& horizontal, const std::string& unit,
                       const std::vector<NamedCurve>& curves);

/// One bar for each curve, divided at its values; `parts` names the sections.
std::string MakeBars(const std::string& title, const std::string& unit, const std::vector<std::string>& parts,
                     const std::vector<NamedCurve>& bars);

}  // namespace bench
