#ifndef SAGLEME_BENCH_PAGE_H
#define SAGLEME_BENCH_PAGE_H

// The page of the documentation about the speed of sagleme: texts of bench/texts around the
// table of a run.

#include <string>
#include <vector>

#include "results.h"
#include "sections.h"

namespace bench {

// Begins with the pictures (pictures.h), which lie beside it. Throws a runtime_error when a text
// cannot be read.
std::string PageOf(std::vector<Result> const& results, Settings const& settings);

}  // namespace bench

#endif
