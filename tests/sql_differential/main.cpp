// Random statements over a sagleme database and over SQLite's copy of its data.
//
//   sql_differential [--seed N] [--episodes N] [--statements N]
//
// An episode begins with new databases. The first difference ends the run: it is made smaller and
// printed with the seed of its episode, which `--seed` runs again.

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>

#include "episode.h"

namespace {

struct Options {
  std::uint64_t seed = 1;
  int episodes = 20;
  int statements = 100;
};

bool Read(int count, char** words, Options& options) {
  for (int i = 1; i < count; i += 2) {
    if (i + 1 == count) return false;
    char* end = nullptr;
    auto const value = std::strtoull(words[i + 1], &end, 10);
    if (*end != '\0' || end == words[i + 1]) return false;
    if (std::strcmp(words[i], "--seed") == 0) {
      options.seed = value;
    } else if (std::strcmp(words[i], "--episodes") == 0) {
      options.episodes = static_cast<int>(value);
    } else if (std::strcmp(words[i], "--statements") == 0) {
      options.statements = static_cast<int>(value);
    } else {
      return false;
    }
  }
  return true;
}

int Report(sql_differential::Outcome const& failed, std::uint64_t seed) {
  std::printf("A difference, with --seed %llu; made smaller:\n",
              static_cast<unsigned long long>(seed));
  std::fflush(stdout);
  auto const shrunk = sql_differential::Shrink(failed, 500);
  for (std::string const& text : shrunk.texts) std::printf("%s;\n", text.c_str());
  std::printf("%s\n", shrunk.difference.c_str());
  return 1;
}

int Work(Options const& options) {
  sql_differential::Outcome sum;
  for (int i = 0; i < options.episodes; ++i) {
    std::uint64_t const seed = options.seed + static_cast<std::uint64_t>(i);
    auto const outcome = sql_differential::Run(seed, options.statements);
    if (!outcome.difference.empty()) return Report(outcome, seed);
    sum.queries += outcome.queries;
    sum.changes += outcome.changes;
    sum.refused += outcome.refused;
    sum.given_up += outcome.given_up;
    sum.rows += outcome.rows;
  }
  std::printf(
      "seeds %llu to %llu: %d queries with %lld rows and %d changes agree; both refused %d, "
      "%d took too long\n",
      static_cast<unsigned long long>(options.seed),
      static_cast<unsigned long long>(options.seed) + static_cast<unsigned>(options.episodes) - 1,
      sum.queries, static_cast<long long>(sum.rows), sum.changes, sum.refused, sum.given_up);
  return 0;
}

}  // namespace

int main(int count, char** words) {
  Options options;
  if (!Read(count, words, options)) {
    std::fprintf(stderr, "usage: sql_differential [--seed N] [--episodes N] [--statements N]\n");
    return 2;
  }
  try {
    return Work(options);
  } catch (std::exception const& error) {
    std::fprintf(stderr, "sql_differential: %s\n", error.what());
    return 2;
  }
}
