#include "store.h"

namespace lscore {

void View::GetMany(Tree tree, std::span<std::string_view const> keys,
                   std::span<std::optional<std::string_view>> values) const {
  for (std::size_t i = 0; i < keys.size(); ++i) {
    std::string_view value;
    values[i].reset();
    if (Get(tree, keys[i], &value)) values[i] = value;
  }
}

}  // namespace lscore
