#ifndef SAGLEME_TESTS_CRASH_LOST_POWER_H
#define SAGLEME_TESTS_CRASH_LOST_POWER_H

// What a disk may hold when the power fails. It holds everything that was synced. Of everything
// else it holds any part: each sector of 512 bytes of each write, each change of a length and each
// change of a name for itself. A file may also be as long as a write made it without the bytes of
// that write, or end where its last sync left it. One thread at a time.

#include <cstddef>
#include <cstdint>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "crash/recorded_disk.h"

namespace crash_test {

class Disk {
 public:
  // The next event of a recording. The newest one is still under way when the power fails.
  void Take(recorded_disk::Event const& event);

  // Puts into the directory, which is empty, what may be there if the power failed now.
  void BuildAfterLoss(std::string const& directory, std::mt19937_64& random) const;
  // The same, with everything that was written.
  void BuildAll(std::string const& directory) const;

 private:
  static constexpr std::size_t kDirectory = SIZE_MAX;
  using Names = std::map<std::string, std::size_t>;

  struct Change {
    bool is_length;
    bool synced;
    std::uint64_t at;
    std::string data;
  };
  struct File {
    std::string kept;
    std::vector<Change> pending;
  };
  struct NameChange {
    recorded_disk::Kind kind;
    bool synced;
    std::string name;
    std::string old_name;
    std::size_t file;
  };
  class Chance;

  void EndCallUnderWay();
  void Add(recorded_disk::Event const& event, Change change);
  void AddName(recorded_disk::Event const& event, std::size_t file);
  std::size_t FileFor(recorded_disk::Event const& event);
  void SyncFile(File& file);
  void SyncNames(std::string const& directory);
  static void Apply(Names& names, NameChange const& change);
  static std::string ContentOf(File const& file, Chance& chance);
  void Build(std::string const& directory, Chance& chance) const;

  std::vector<File> files_;
  std::map<std::uint64_t, std::size_t> numbers_;  // the system's, of files that have names
  Names now_;
  Names kept_;
  std::vector<NameChange> pending_names_;
  Change* under_way_ = nullptr;  // synced when its call returns
};

}  // namespace crash_test

#endif
