#ifndef SAGLEME_HOST_DATA_NEW_IDS_H
#define SAGLEME_HOST_DATA_NEW_IDS_H

// New identities for all objects of a dump, from 1, in the order of the dump. Consecutive
// identities are kept as one run, so memory grows with the gaps between them.

#include <cstdint>
#include <sagleme/host.hpp>
#include <vector>

namespace sagleme {

class NewIds {
 public:
  void Add(std::uint64_t old);
  // After the last Add, before the first Find.
  void Finish();

  std::uint64_t size() const { return next_ - 1; }
  // 0 for one that was not added.
  ObjectId Find(std::uint64_t old) const;

 private:
  struct Run {
    std::uint64_t old_first = 0;
    std::uint64_t new_first = 0;
    std::uint64_t count = 0;
  };

  std::vector<Run> runs_;
  std::uint64_t next_ = 1;
};

}  // namespace sagleme

#endif
