#ifndef SAGLEME_BENCH_PICTURES_H
#define SAGLEME_BENCH_PICTURES_H

// Figures as pictures for the page, in SVG.

#include <string>
#include <vector>

#include "results.h"

namespace bench {

struct Picture {
  std::string name;  // of a file beside the page
  std::string title;
  std::string svg;
};

// Those whose rows were measured.
std::vector<Picture> PicturesOf(std::vector<Result> const& results);

}  // namespace bench

#endif
