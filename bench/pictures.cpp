#include "pictures.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>

#include "sections.h"

namespace bench {
namespace {

// One line of a picture: a name, and values that share the axis.
struct Line {
  std::string name;
  std::vector<std::pair<std::string, double>> values;  // by kind
};

constexpr int kWidth = 860;
constexpr int kNames = 400;  // the axis begins here
constexpr int kTop = 64;
constexpr int kLineHeight = 24;
constexpr int kMargin = 30;
constexpr char const* kColours[] = {"#1f77b4", "#d62728", "#2ca02c", "#9467bd"};

// A logarithmic axis over powers of ten.
class Axis {
 public:
  explicit Axis(std::vector<Line> const& lines) {
    for (Line const& line : lines) {
      for (auto const& [kind, value] : line.values) {
        low_ = std::min(low_, std::floor(std::log10(value)));
        high_ = std::max(high_, std::ceil(std::log10(value)));
      }
    }
    if (high_ <= low_) high_ = low_ + 1;
  }
  int low() const { return static_cast<int>(low_); }
  int high() const { return static_cast<int>(high_); }
  double At(double value) const {
    return kNames + (std::log10(value) - low_) / (high_ - low_) * (kWidth - kNames - kMargin);
  }

 private:
  double low_ = 1e9;
  double high_ = -1e9;
};

std::string Escaped(std::string const& text) {
  std::string escaped;
  for (char const c : text) {
    escaped += c == '&' ? "&amp;" : c == '<' ? "&lt;" : std::string(1, c);
  }
  return escaped;
}

std::string TextAt(double x, double y, char const* anchor, std::string const& text) {
  return fmt::format("<text x=\"{:.0f}\" y=\"{:.0f}\" text-anchor=\"{}\">{}</text>\n", x, y, anchor,
                     Escaped(text));
}

std::string DotAt(double x, double y, std::size_t kind) {
  return fmt::format("<circle cx=\"{:.1f}\" cy=\"{:.1f}\" r=\"5\" fill=\"{}\"/>\n", x, y,
                     kColours[kind % std::size(kColours)]);
}

using LabelOf = std::string (*)(double value);

std::string Draw(std::string const& title, std::vector<Line> const& lines, LabelOf label) {
  Axis const axis(lines);
  int const bottom = kTop + static_cast<int>(lines.size()) * kLineHeight;
  std::string svg = fmt::format(
      "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"{0}\" height=\"{1}\" viewBox=\"0 0 {0} "
      "{1}\" font-family=\"sans-serif\" font-size=\"13\">\n<rect width=\"100%\" height=\"100%\" "
      "fill=\"white\"/>\n",
      kWidth, bottom + kMargin);
  svg += TextAt(kMargin / 2, 20, "start", title);
  for (int power = axis.low(); power <= axis.high(); ++power) {
    double const value = std::pow(10.0, power);
    svg +=
        fmt::format("<line x1=\"{0:.1f}\" y1=\"{1}\" x2=\"{0:.1f}\" y2=\"{2}\" stroke=\"{3}\"/>\n",
                    axis.At(value), kTop - 10, bottom, power == 0 ? "black" : "#cccccc");
    svg += TextAt(axis.At(value), bottom + 18, "middle", label(value));
  }
  std::vector<std::string> kinds;
  double y = kTop;
  for (Line const& line : lines) {
    svg += TextAt(kNames - 12, y + 5, "end", line.name);
    for (auto const& [kind, value] : line.values) {
      auto const found = std::find(kinds.begin(), kinds.end(), kind);
      auto const index = static_cast<std::size_t>(found - kinds.begin());
      if (found == kinds.end()) kinds.push_back(kind);
      svg += DotAt(axis.At(value), y, index);
    }
    y += kLineHeight;
  }
  double x = kNames;
  for (std::size_t i = 0; i < kinds.size(); ++i) {
    svg += DotAt(x, 40, i) + TextAt(x + 10, 45, "start", kinds[i]);
    x += 34.0 + 7.0 * static_cast<double>(kinds[i].size());
  }
  return svg + "</svg>\n";
}

std::string RatioLabel(double value) { return fmt::format("{:g}", value); }

std::string TimeLabel(double nanoseconds) {
  if (nanoseconds >= 1e9) return fmt::format("{:g} s", nanoseconds / 1e9);
  if (nanoseconds >= 1e6) return fmt::format("{:g} ms", nanoseconds / 1e6);
  if (nanoseconds >= 1e3) return fmt::format("{:g} \u00B5s", nanoseconds / 1e3);
  return fmt::format("{:g} ns", nanoseconds);
}

constexpr std::size_t kLongestName = 58;

// Works whose time is compared with that of LMDB or SQLite. Where more is better, the ratio is
// turned around: left is always faster.
Picture RatiosOf(std::vector<Result> const& results) {
  std::vector<Line> lines;
  for (Result const& result : results) {
    if (result.unit == "bytes") continue;
    Line line{result.work, {}};
    if (line.name.size() > kLongestName) line.name = line.name.substr(0, kLongestName - 3) + "...";
    for (char const* const engine : {kLmdb, kSqliteMemory, kSqliteWal}) {
      std::optional<Ratio> const ratio = RatioTo(result, engine);
      if (!ratio || ratio->median <= 0) continue;
      line.values.push_back({engine, result.more_is_better ? 1 / ratio->median : ratio->median});
    }
    if (!line.values.empty()) lines.push_back(std::move(line));
  }
  std::string const title = "Time of sagleme, as a multiple of that of others; left of 1 is faster";
  return {"performance-ratios.svg", title, lines.empty() ? "" : Draw(title, lines, &RatioLabel)};
}

Picture SpreadOf(std::vector<Result> const& results) {
  std::vector<Line> lines;
  for (Result const& result : results) {
    if (result.work != kLongestWith && result.work != kLongestWithout) continue;
    Line line{result.work == kLongestWith ? "with checkpoints" : "without a checkpoint", {}};
    for (Series const& series : result.series) {
      std::string const kind = series.engine == kSagleme ? "longest" : series.engine;
      line.values.push_back({kind, Median(series.values)});
    }
    lines.push_back(std::move(line));
  }
  std::string const title = "Durable commits of one object: how long they take";
  return {"performance-commits.svg", title, lines.empty() ? "" : Draw(title, lines, &TimeLabel)};
}

}  // namespace

std::vector<Picture> PicturesOf(std::vector<Result> const& results) {
  std::vector<Picture> pictures{RatiosOf(results), SpreadOf(results)};
  std::erase_if(pictures, [](Picture const& picture) { return picture.svg.empty(); });
  return pictures;
}

}  // namespace bench
