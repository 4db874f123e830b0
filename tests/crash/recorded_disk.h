#ifndef SAGLEME_TESTS_CRASH_RECORDED_DISK_H
#define SAGLEME_TESTS_CRASH_RECORDED_DISK_H

// A recording of what processes do to the files of one directory: writes, also through maps,
// changes of length and of names, and syncs. lost_power.h makes of it what a disk may hold when the
// power fails in between. The executable defines the system's functions that change files; while a
// process records, they work one at a time, and syncs only pretend.
//
// A map is compared with what it was at each event, so that what is written into it is recorded
// before whatever follows. All processes append to one file.

#include <sys/types.h>

#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

namespace recorded_disk {

enum class Kind : std::uint32_t {
  kBegun,            // what was there before has been recorded
  kName,             // `file` has come to be at the path `name`
  kUnname,           // `name` is gone
  kRename,           // from `data` to `name`
  kMakeDirectory,    // `name`
  kRemoveDirectory,  // `name`
  kSyncDirectory,    // `name`
  kWrite,            // `data` at `at`
  kSyncedWrite,      // the same, on the disk when the call returns
  kLength,           // `at`
  kSync,             // of `file`
  kNote,             // the process has said `data`
  kEnd,              // a process has recorded enough
};

// Paths are relative to the directory, which itself is the empty one. Files are numbered by the
// system; a number may be used again when the file has no name any more.
struct Event {
  Kind kind{};
  std::uint64_t file = 0;
  std::uint64_t at = 0;
  std::string name;
  std::string data;
};

// Begins a recording with what the directory holds, all of it synced.
void Begin(std::string const& directory, std::string const& recording);
// From now on this process records; after so many events it ends at once, as kill -9 does.
void Join(std::string const& directory, std::string const& recording, std::uint64_t most);
// Nothing when the process does not record.
void Note(std::string const& text);
std::vector<Event> Read(std::string const& recording);

// ---- for the functions that stand between -------------------------------------------------------

bool IsRecording();
// Held around a call of the system and its recording; holds nothing when the process does not
// record.
std::unique_lock<std::recursive_mutex> Busy();
// After it was done. Files of other directories are left alone.
void Wrote(int file, void const* data, std::size_t size, off_t at);
void Synced(int file);
void SyncedDirectory(int directory);

}  // namespace recorded_disk

#endif
