#ifndef SAGLEME_TESTS_SQL_DIFFERENTIAL_EPISODE_H
#define SAGLEME_TESTS_SQL_DIFFERENTIAL_EPISODE_H

// A run of statements over new databases, up to the first that is answered differently.

#include <cstdint>
#include <string>
#include <vector>

namespace sql_differential {

using Drawn = std::vector<std::uint32_t>;

struct Episode {
  Drawn setup;
  std::vector<Drawn> statements;
};

struct Outcome {
  Episode episode;         // as far as it went
  std::string difference;  // empty when there was none
  // Of all statements, as our side got them.
  std::vector<std::string> texts;
  int queries = 0;
  int changes = 0;
  int refused = 0;  // by both
  int given_up = 0;
  std::int64_t rows = 0;
};

// `statements` random ones.
Outcome Run(std::uint64_t seed, int statements);
Outcome Replay(Episode const& episode);
// The same difference with less. Tries at most so many episodes.
Outcome Shrink(Outcome failed, int tries);

}  // namespace sql_differential

#endif
