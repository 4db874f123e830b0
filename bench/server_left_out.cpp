// In place of server.cpp where the store on a server is not built.

#include <iostream>

#include "sections.h"

namespace bench {

std::vector<Result> MeasureServer(Settings const&) {
  std::cerr << "left out: sagleme on a server; built without SAGLEME_POSTGRES" << std::endl;
  return {};
}

}  // namespace bench
