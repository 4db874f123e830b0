#ifndef SAGLEME_TESTS_CRASH_RECORDING_H
#define SAGLEME_TESTS_CRASH_RECORDING_H

// A recording of a test's processes, kept in a file that goes with the object.

#include <algorithm>
#include <cstdint>
#include <functional>
#include <limits>
#include <string>
#include <vector>

#include "crash/directory.h"
#include "crash/lost_power.h"
#include "crash/recorded_disk.h"

namespace crash_test {

class Recording {
 public:
  static constexpr std::uint64_t kNoEnd = std::numeric_limits<std::uint64_t>::max();
  using Look = std::function<void(std::string const& directory)>;

  // What the directory holds now counts as synced.
  explicit Recording(std::string const& directory) : directory_(directory) {
    recorded_disk::Begin(directory_, path());
  }

  // In a child: what it does from now on is recorded. After `most` events it ends.
  void Join(std::uint64_t most = kNoEnd) const { recorded_disk::Join(directory_, path(), most); }

  std::vector<recorded_disk::Event> Events() const { return recorded_disk::Read(path()); }

  // Shows some of what may be left when the power failed at the last event.
  void ForEachLossAtItsEnd(Look const& look) const {
    constexpr int kLosses = 4;
    Disk disk;
    for (recorded_disk::Event const& event : Events()) disk.Take(event);
    disk.Take({recorded_disk::Kind::kEnd, 0, 0, "", ""});  // the last call has returned
    std::mt19937_64 random(directory_.size());
    for (int i = 0; i < kLosses; ++i) {
      Directory const left;
      disk.BuildAfterLoss(left.path(), random);
      look(left.path());
    }
  }

 private:
  std::string path() const { return place_.path() + "/recording"; }

  std::string const directory_;
  Directory place_;
};

// Where a recording begins with what the processes did.
inline std::size_t FirstMoment(std::vector<recorded_disk::Event> const& events) {
  auto const begun = std::find_if(
      events.begin(), events.end(),
      [](recorded_disk::Event const& event) { return event.kind == recorded_disk::Kind::kBegun; });
  return static_cast<std::size_t>(begun - events.begin());
}

}  // namespace crash_test

#endif
