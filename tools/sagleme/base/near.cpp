#include "base/near.h"

#include <algorithm>
#include <cctype>
#include <utility>

namespace tool {
namespace {

constexpr std::size_t kMostNames = 3;
constexpr std::size_t kLongestName = 200;  // the distance takes time by the product of lengths

std::string Lower(std::string text) {
  for (char& each : text) each = static_cast<char>(std::tolower(static_cast<unsigned char>(each)));
  return text;
}

// Insertions, deletions, replacements and swaps of neighbours that lead from one to the other.
std::size_t Distance(std::string const& a, std::string const& b) {
  std::vector<std::size_t> before;
  std::vector<std::size_t> above(b.size() + 1);
  for (std::size_t j = 0; j <= b.size(); ++j) above[j] = j;
  for (std::size_t i = 1; i <= a.size(); ++i) {
    std::vector<std::size_t> line(b.size() + 1, i);
    for (std::size_t j = 1; j <= b.size(); ++j) {
      std::size_t const replaced = above[j - 1] + (a[i - 1] == b[j - 1] ? 0 : 1);
      line[j] = std::min({above[j] + 1, line[j - 1] + 1, replaced});
      bool const swapped = i > 1 && j > 1 && a[i - 1] == b[j - 2] && a[i - 2] == b[j - 1];
      if (swapped) line[j] = std::min(line[j], before[j - 2] + 1);
    }
    before = std::exchange(above, std::move(line));
  }
  return above.back();
}

}  // namespace

std::vector<std::string> NearNames(std::string const& typed,
                                   std::vector<std::string> const& names) {
  std::string const wanted = Lower(typed);
  std::size_t const most = 1 + wanted.size() / 4;
  std::vector<std::pair<std::size_t, std::string>> near;
  for (std::string const& name : names) {
    if (std::max(name.size(), wanted.size()) > kLongestName) continue;
    std::string const candidate = Lower(name);
    std::size_t const distance = Distance(wanted, candidate);
    bool const begins = wanted.size() >= 3 && candidate.starts_with(wanted);
    if (distance < candidate.size() && (begins || distance <= most)) {
      near.emplace_back(distance, name);
    }
  }
  std::sort(near.begin(), near.end());
  near.erase(std::unique(near.begin(), near.end()), near.end());
  std::vector<std::string> found;
  for (auto& [distance, name] : near) {
    if (found.size() < kMostNames) found.push_back(std::move(name));
  }
  return found;
}

std::string DidYouMean(std::string const& typed, std::vector<std::string> const& names) {
  auto const near = NearNames(typed, names);
  if (near.empty()) return "";
  std::string text = "Did you mean " + near.front();
  for (std::size_t i = 1; i < near.size(); ++i) {
    text += (i + 1 == near.size() ? " or " : ", ") + near[i];
  }
  return text + "?";
}

}  // namespace tool
