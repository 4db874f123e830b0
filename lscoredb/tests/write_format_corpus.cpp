// Writes the database of a new version of the format: DIRECTORY VERSION.

#include <cstdio>
#include <cstdlib>

#include "format_corpus.h"

int main(int count, char** arguments) {
  if (count != 3) {
    std::fprintf(stderr, "usage: %s DIRECTORY VERSION\n", arguments[0]);
    return EXIT_FAILURE;
  }
  auto const version = static_cast<std::uint32_t>(std::atoi(arguments[2]));
  if (version == 0 || version > lscoredb_test::corpus::kNewestVersion) {
    std::fprintf(stderr, "There is no version %s.\n", arguments[2]);
    return EXIT_FAILURE;
  }
  lscoredb_test::corpus::Write(arguments[1], version);
  return EXIT_SUCCESS;
}
