#ifndef LSCOREDB_SRC_HIDDEN_RUNS_H
#define LSCOREDB_SRC_HIDDEN_RUNS_H

// Ranges of keys in which a scan found nothing but deleted entries, so that later scans step over
// each at once. Without them, taking the first entry of a queue again and again is quadratic: each
// scan steps over all entries that were taken before.
//
//   deleted   a b c d e f g . . j      a scan from below a delivers j and notes the run a..g;
//             [-----------]            the next one that meets a goes on behind g
//
// A run holds for scans that see at least what the one saw that found it, until an entry is written
// within it. Not safe for several threads.

#include <algorithm>
#include <cstddef>
#include <iterator>
#include <map>

namespace lscore {

// `State`: what a scan sees, in the order in which it comes about.
template <typename Key, typename State, typename Less>
class HiddenRuns {
 public:
  struct Run {
    Key first;
    Key last;
  };

  bool empty() const { return runs_.empty(); }

  // The run around the key that holds for a scan of the state; null: none is known.
  Run const* Find(Key const& key, State const& state) const {
    auto const found = Around(key);
    return found == runs_.end() || state < found->second.since ? nullptr : &found->second.run;
  }

  // Both keys are included. Runs that it overlaps become one with it.
  void Note(Key first, Key last, State since) {
    auto at = Around(first);
    if (at == runs_.end()) at = runs_.lower_bound(first);
    while (at != runs_.end() && !less_(last, at->first)) {
      if (less_(at->second.run.first, first)) first = at->second.run.first;
      if (less_(last, at->second.run.last)) last = at->second.run.last;
      since = std::max(since, at->second.since);
      at = runs_.erase(at);
    }
    if (runs_.size() >= kMost) runs_.clear();
    runs_.emplace(first, Known{{first, last}, since});
  }

  // An entry is written: no run goes across it any more.
  void Break(Key const& key) {
    auto const found = Around(key);
    if (found != runs_.end()) runs_.erase(found);
  }

  void Clear() { runs_.clear(); }

 private:
  struct Known {
    Run run;
    State since;
  };
  using Runs = std::map<Key, Known, Less>;

  typename Runs::const_iterator Around(Key const& key) const {
    auto const behind = runs_.upper_bound(key);
    if (behind == runs_.begin()) return runs_.end();
    auto const before = std::prev(behind);
    return less_(before->second.run.last, key) ? runs_.end() : before;
  }

  static constexpr std::size_t kMost = 1024;

  Less less_;
  Runs runs_;
};

}  // namespace lscore

#endif
