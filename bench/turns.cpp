#include "turns.h"

#include <iostream>
#include <utility>

#include "sections.h"

namespace bench {

Result MakeComparison(std::string work, std::string unit, std::string const& other, double goal) {
  std::cerr << work << std::endl;
  return {std::move(work), std::move(unit), false, {{kSagleme, {}}, {other, {}}}, {{other, goal}}};
}

void MeasureRound(Result& result, Turn const& own, Turn const& other) {
  constexpr int kTurns = 10;
  std::vector<double> figures[2];
  for (int turn = 0; turn < kTurns; ++turn) {
    for (int i = 0; i < 2; ++i) {
      int const which = (turn + i) % 2;
      figures[which].push_back(which == 0 ? own() : other());
    }
  }
  for (std::size_t i = 0; i < 2; ++i) result.series[i].values.push_back(Median(figures[i]));
}

}  // namespace bench
