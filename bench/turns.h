#ifndef SAGLEME_BENCH_TURNS_H
#define SAGLEME_BENCH_TURNS_H

// Two sides that take turns within a round, so that what else the machine does meets both.

#include <functional>
#include <string>

#include "results.h"

namespace bench {

// Of what each side does in a turn, so many. The first ones pay for the turn of the other side.
inline constexpr int kTurnTimes = 15;

// Without figures yet: sagleme and another side, which is to be reached by that ratio.
Result MakeComparison(std::string work, std::string unit, std::string const& other, double goal);

// A figure of one side's turn.
using Turn = std::function<double()>;
// Adds a round, of each side the median of ten turns.
void MeasureRound(Result& result, Turn const& own, Turn const& other);

}  // namespace bench

#endif
