#include "overflow.h"

#include "bytes.h"
#include "row.h"
#include "status.h"

namespace lscore {

std::string ChunkKey(ObjectId id, std::uint32_t chunk) {
  std::string key;
  AppendBig(key, Raw(id));
  AppendBig(key, chunk);
  return key;
}

std::string AssembleImage(View const& view, ObjectId id, std::string_view stub) {
  if (!StubHolds(stub)) Throw(LSCOREDB_DAMAGED);
  std::uint64_t const size = WholeSize(stub);
  std::string image;
  for (std::uint32_t chunk = 0; image.size() < size; ++chunk) {
    std::string_view bytes;
    bool const there = view.Get(Tree::kOverflow, ChunkKey(id, chunk), &bytes);
    if (!there || bytes.empty() || bytes.size() > size - image.size()) Throw(LSCOREDB_DAMAGED);
    image.append(bytes);
  }
  return image;
}

}  // namespace lscore
