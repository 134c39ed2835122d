#include "picture.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cmath>

namespace bench {

namespace {

constexpr double kWidth = 720;
constexpr double kLeft = 110;
constexpr double kRight = kWidth - 110;

/// Readable on light and on dark backgrounds.
constexpr std::array<const char*, 6> kColours{"#2a78d6", "#e0812b", "#3a9d5d",
                                              "#a05bb5", "#c94f4f", "#7f7f7f"};

/// An SVG image. Coordinates start at the top left corner.
class Drawing {
 public:
  explicit Drawing(double height)
      : mText(fmt::format("<svg xmlns=\"http://www.w3.org/2000/svg\" viewBox=\"0 0 {0} {1}\" width=\"{0}\" "
                          "font-family=\"sans-serif\" font-size=\"13\">\n"
                          "<rect width=\"{0}\" height=\"{1}\" fill=\"white\"/>\n",
                          kWidth, height)) {}

  void Text(double x, double y, const std::string& anchor, const std::string& text) {
    mText += fmt::format("<text x=\"{:.0f}\" y=\"{:.0f}\" text-anchor=\"{}\" fill=\"#222\">{}</text>\n", x, y,
                         anchor, text);
  }
  void Line(double x1, double y1, double x2, double y2) {
    mText += fmt::format("<line x1=\"{:.1f}\" y1=\"{:.1f}\" x2=\"{:.1f}\" y2=\"{:.1f}\" stroke=\"#ccc\"/>\n",
                         x1, y1, x2, y2);
  }
  void Box(double x, double y, double width, double height, const std::string& colour) {
    mText += fmt::format("<rect x=\"{:.1f}\" y=\"{:.1f}\" width=\"{:.1f}\" height=\"{:.1f}\" fill=\"{}\"/>\n",
                         x, y, width, height, colour);
  }
  void Path(const std::vector<std::pair<double, double>>& points, const std::string& colour) {
    mText += "<polyline fill=\"none\" stroke-width=\"2\" stroke=\"" + colour + "\" points=\"";
    for (const auto& [x, y] : points) {
      mText += fmt::format("{:.1f},{:.1f} ", x, y);
    }
    mText += "\"/>\n";
    for (const auto& [x, y] : points) {
      mText += fmt::format("<circle cx=\"{:.1f}\" cy=\"{:.1f}\" r=\"3\" fill=\"{}\"/>\n", x, y, colour);
    }
  }
  std::string End() const { return mText + "</svg>\n"; }

 private:
  std::string mText;
};

/// A logarithmic axis from one power of ten to another.
class Axis {
 public:
  Axis(double least, double most, double from, double to)
      : mLowest(std::floor(std::log10(least))),
        mHighest(std::max(std::ceil(std::log10(most)), mLowest + 1)),
        mFrom(from),
        mTo(to) {}

  double At(double value) const {
    return mFrom + (std::log10(value) - mLowest) / (mHighest - mLowest) * (mTo - mFrom);
  }
  std::vector<double> Marks() const {
    std::vector<double> marks;
    for (int power = static_cast<int>(mLowest); power <= static_cast<int>(mHighest); ++power) {
      marks.push_back(std::pow(10, power));
    }
    return marks;
  }

 private:
  double mLowest;
  double mHighest;
  double mFrom;
  double mTo;
};

}  // namespace

std::string MakeCurves(const std::string& title, const std::string& horizontal, const std::string& unit,
                       const std::vector<NamedCurve>& curves) {
  constexpr double kTop = 50;
  constexpr double kBottom = 320;
  std::vector<double> xs;
  std::vector<double> ys;
  for (const auto& curve : curves) {
    for (const auto& [x, y] : curve.points) {
      xs.push_back(x);
      ys.push_back(y);
    }
  }
  Drawing drawing(kBottom + 50);
  drawing.Text(kLeft, 24, "start", title);
  if (xs.empty()) {
    return drawing.End();
  }
  const auto [leastX, mostX] = std::minmax_element(xs.begin(), xs.end());
  const auto [leastY, mostY] = std::minmax_element(ys.begin(), ys.end());
  const Axis across(*leastX, *mostX, kLeft, kRight);
  const Axis up(*leastY, *mostY, kBottom, kTop);
  for (const double mark : across.Marks()) {
    drawing.Line(across.At(mark), kTop, across.At(mark), kBottom);
    drawing.Text(across.At(mark), kBottom + 18, "middle", fmt::format("{:.0f}", mark));
  }
  for (const double mark : up.Marks()) {
    drawing.Line(kLeft, up.At(mark), kRight, up.At(mark));
    drawing.Text(kLeft - 8, up.At(mark) + 4, "end", fmt::format("{:g} {}", mark, unit));
  }
  drawing.Text((kLeft + kRight) / 2, kBottom + 40, "middle", horizontal);
  for (std::size_t i = 0; i < curves.size(); ++i) {
    Curve points;
    for (const auto& [x, y] : curves[i].points) {
      points.emplace_back(across.At(x), up.At(y));
    }
    const std::string colour = kColours[i % kColours.size()];
    drawing.Path(points, colour);
    const double y = kTop + 20 * static_cast<double>(i);
    drawing.Box(kRight + 12, y - 10, 12, 12, colour);
    drawing.Text(kRight + 30, y, "start", curves[i].name);
  }
  return drawing.End();
}

std::string MakeBars(const std::string& title, const std::string& unit, const std::vector<std::string>& parts,
                     const std::vector<NamedCurve>& bars) {
  constexpr double kTop = 50;
  constexpr double kStep = 50;
  double longest = 1;
  for (const auto& bar : bars) {
    for (const auto& [place, value] : bar.points) {
      longest = std::max(longest, value);
    }
  }
  const double legend = kTop + kStep * static_cast<double>(bars.size()) + 14;
  Drawing drawing(legend + 22 * static_cast<double>(parts.size()) + 4);
  drawing.Text(kLeft, 24, "start", title);
  for (std::size_t i = 0; i < bars.size(); ++i) {
    const double y = kTop + kStep * static_cast<double>(i);
    const double scale = (kRight - kLeft) / longest;
    double before = 0;
    for (std::size_t part = 0; part + 1 < bars[i].points.size(); ++part) {
      const double value = std::max(bars[i].points[part + 1].second, before);
      drawing.Box(kLeft + before * scale, y, (value - before) * scale, kStep * 0.6,
                  kColours[part % kColours.size()]);
      before = value;
    }
    drawing.Text(kLeft - 8, y + kStep * 0.4, "end", bars[i].name);
    drawing.Text(kLeft + before * scale + 8, y + kStep * 0.4, "start",
                 fmt::format("{:.0f} {}", before, unit));
  }
  for (std::size_t part = 0; part < parts.size(); ++part) {
    const double y = legend + 22 * static_cast<double>(part);
    drawing.Box(kLeft, y - 11, 12, 12, kColours[part % kColours.size()]);
    drawing.Text(kLeft + 20, y, "start", parts[part]);
  }
  return drawing.End();
}

}  // namespace bench
