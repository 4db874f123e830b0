#include "crash/recorded_disk.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <optional>
#include <string_view>

namespace recorded_disk {
namespace {

constexpr std::size_t kSector = 512;

struct Head {
  Kind kind;
  std::uint32_t name_size;
  std::uint64_t file;
  std::uint64_t at;
  std::uint64_t data_size;
};

// A part of a file that the process writes through memory.
struct Map {
  char const* begin;
  std::uint64_t file;
  std::uint64_t at;
  std::string known;
};

struct Recorder {
  std::recursive_mutex mutex;
  std::string directory;
  int output = -1;
  std::uint64_t events_left = 0;
  std::vector<Map> maps;
};

Recorder& TheRecorder() {
  static Recorder recorder;
  return recorder;
}

template <typename Function>
Function* Behind(char const* name) {
  void* const found = dlsym(RTLD_NEXT, name);
  if (found == nullptr) std::abort();
  return reinterpret_cast<Function*>(found);
}

// In one write, so that processes that record do not get in each other's way.
void Append(int output, Event const& event) {
  Head const head{event.kind, static_cast<std::uint32_t>(event.name.size()), event.file, event.at,
                  event.data.size()};
  std::string bytes(reinterpret_cast<char const*>(&head), sizeof head);
  bytes.append(event.name).append(event.data);
  if (write(output, bytes.data(), bytes.size()) != static_cast<ssize_t>(bytes.size())) {
    std::abort();
  }
}

void AppendAndCount(Event const& event) {
  Recorder& recorder = TheRecorder();
  Append(recorder.output, event);
  if (recorder.events_left > 0) --recorder.events_left;
}

// Never between the changes of the maps and the call that follows them: that call has been made,
// other processes may have seen what it did, and a recording without it would lose it.
void EndWhenEnough() {
  Recorder const& recorder = TheRecorder();
  if (recorder.events_left > 0) return;
  Append(recorder.output, {Kind::kEnd, 0, 0, "", ""});
  raise(SIGKILL);
}

void RecordChangesOf(Map& map) {
  std::size_t const size = map.known.size();
  if (std::memcmp(map.begin, map.known.data(), size) == 0) return;
  for (std::size_t at = 0; at < size; at += kSector) {
    std::string now(map.begin + at, std::min(kSector, size - at));
    if (map.known.compare(at, now.size(), now) == 0) continue;
    map.known.replace(at, now.size(), now);
    AppendAndCount({Kind::kWrite, map.file, map.at + at, "", std::move(now)});
  }
}

void RecordMaps() {
  for (Map& map : TheRecorder().maps) RecordChangesOf(map);
}

void Record(Event const& event) {
  RecordMaps();
  AppendAndCount(event);
  EndWhenEnough();
}

// The path in the recorded directory; nothing for files elsewhere.
std::optional<std::string> Inside(std::string_view path) {
  std::string const& directory = TheRecorder().directory;
  if (path == directory) return "";
  if (!path.starts_with(directory) || path[directory.size()] != '/') return std::nullopt;
  return std::string(path.substr(directory.size() + 1));
}

std::optional<std::string> Inside(int file) {
  std::array<char, 4096> target{};
  std::string const link = "/proc/self/fd/" + std::to_string(file);
  ssize_t const size = readlink(link.c_str(), target.data(), target.size());
  if (size < 0) return std::nullopt;
  return Inside(std::string_view(target.data(), static_cast<std::size_t>(size)));
}

struct stat StatusOf(int file) {
  struct stat status {};
  if (fstat(file, &status) != 0) std::abort();
  return status;
}

std::uint64_t NumberOf(int file) { return StatusOf(file).st_ino; }

void RecordPath(Kind kind, char const* path, int result) {
  if (!IsRecording() || result != 0) return;
  if (auto const name = Inside(path)) Record({kind, 0, 0, *name, ""});
}

Kind KindOfRemoval(bool directory) { return directory ? Kind::kRemoveDirectory : Kind::kUnname; }

// The path that is called so from an open directory.
std::string PathIn(int directory, char const* path) {
  if (directory == AT_FDCWD || !IsRecording()) return path;
  std::string const link = "/proc/self/fd/" + std::to_string(directory);
  std::error_code error;
  return std::filesystem::read_symlink(link, error) / path;
}

void RecordOpening(char const* path, int flags, int file) {
  if (!IsRecording() || file < 0 || (flags & O_CREAT) == 0) return;
  if (auto const name = Inside(path)) Record({Kind::kName, NumberOf(file), 0, *name, ""});
}

// Only the part that the file has: the rest cannot be read.
void RememberMap(void* begin, std::size_t size, int protection, int flags, int file, off_t at) {
  bool const writes = (protection & PROT_WRITE) != 0 && (flags & MAP_SHARED) != 0;
  if (!IsRecording() || begin == MAP_FAILED || !writes || file < 0) return;
  if (!Inside(file).has_value()) return;
  auto const length = static_cast<std::size_t>(std::max<off_t>(0, StatusOf(file).st_size - at));
  auto const* const bytes = static_cast<char const*>(begin);
  TheRecorder().maps.push_back({bytes, NumberOf(file), static_cast<std::uint64_t>(at),
                                std::string(bytes, std::min(size, length))});
}

void ForgetMap(void const* begin) {
  if (!IsRecording()) return;
  RecordMaps();
  std::erase_if(TheRecorder().maps, [&](Map const& map) { return map.begin == begin; });
}

std::string ContentOf(std::filesystem::path const& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

void RecordExisting(int output, std::string const& directory) {
  for (auto const& entry : std::filesystem::recursive_directory_iterator(directory)) {
    std::string const name = entry.path().string().substr(directory.size() + 1);
    if (entry.is_directory()) {
      Append(output, {Kind::kMakeDirectory, 0, 0, name, ""});
      continue;
    }
    struct stat status {};
    if (stat(entry.path().c_str(), &status) != 0) std::abort();
    Append(output, {Kind::kName, status.st_ino, 0, name, ""});
    Append(output, {Kind::kWrite, status.st_ino, 0, "", ContentOf(entry.path())});
    Append(output, {Kind::kSync, status.st_ino, 0, "", ""});
    std::string const parent = std::filesystem::path(name).parent_path().string();
    Append(output, {Kind::kSyncDirectory, 0, 0, parent, ""});
  }
  Append(output, {Kind::kSyncDirectory, 0, 0, "", ""});
  Append(output, {Kind::kBegun, 0, 0, "", ""});
}

int OpenRecording(std::string const& recording, int more) {
  int const output = open(recording.c_str(), O_WRONLY | O_APPEND | O_CLOEXEC | more, 0600);
  if (output < 0) std::abort();
  return output;
}

}  // namespace

void Begin(std::string const& directory, std::string const& recording) {
  int const output = OpenRecording(recording, O_CREAT | O_TRUNC);
  RecordExisting(output, directory);
  close(output);
}

void Join(std::string const& directory, std::string const& recording, std::uint64_t most) {
  Recorder& recorder = TheRecorder();
  int const output = OpenRecording(recording, 0);
  std::lock_guard const lock(recorder.mutex);
  recorder.directory = directory;
  recorder.events_left = most;
  recorder.output = output;
}

void Note(std::string const& text) {
  auto const lock = Busy();
  if (IsRecording()) Record({Kind::kNote, 0, 0, "", text});
}

std::vector<Event> Read(std::string const& recording) {
  std::string const bytes = ContentOf(recording);
  std::vector<Event> events;
  for (std::size_t at = 0; at + sizeof(Head) <= bytes.size();) {
    Head head;
    std::memcpy(&head, bytes.data() + at, sizeof head);
    at += sizeof head;
    if (bytes.size() - at < head.name_size + head.data_size) std::abort();
    events.push_back({head.kind, head.file, head.at, bytes.substr(at, head.name_size),
                      bytes.substr(at + head.name_size, head.data_size)});
    at += head.name_size + head.data_size;
  }
  return events;
}

bool IsRecording() { return TheRecorder().output >= 0; }

std::unique_lock<std::recursive_mutex> Busy() {
  if (!IsRecording()) return {};
  return std::unique_lock(TheRecorder().mutex);
}

void Wrote(int file, void const* data, std::size_t size, off_t at) {
  if (!IsRecording() || !Inside(file).has_value()) return;
  bool const synced = (fcntl(file, F_GETFL) & O_DSYNC) != 0;
  Record({synced ? Kind::kSyncedWrite : Kind::kWrite,
          NumberOf(file),
          static_cast<std::uint64_t>(at),
          "",
          {static_cast<char const*>(data), size}});
}

void Synced(int file) {
  if (IsRecording() && Inside(file).has_value()) Record({Kind::kSync, NumberOf(file), 0, "", ""});
}

void SyncedDirectory(int directory) {
  if (!IsRecording()) return;
  if (auto const name = Inside(directory)) Record({Kind::kSyncDirectory, 0, 0, *name, ""});
}

}  // namespace recorded_disk

using namespace recorded_disk;

#define STANDS_BETWEEN extern "C" __attribute__((visibility("default")))

STANDS_BETWEEN int open(char const* path, int flags, ...) {
  static auto* const real = Behind<int(char const*, int, ...)>("open");
  va_list rest;
  va_start(rest, flags);
  mode_t const mode = (flags & (O_CREAT | O_TMPFILE)) != 0 ? va_arg(rest, mode_t) : 0;
  va_end(rest);
  auto const lock = Busy();
  int const file = real(path, flags, mode);
  RecordOpening(path, flags, file);
  return file;
}

STANDS_BETWEEN int ftruncate(int file, off_t length) noexcept {
  static auto* const real = Behind<int(int, off_t)>("ftruncate");
  auto const lock = Busy();
  int const result = real(file, length);
  if (IsRecording() && result == 0 && Inside(file).has_value()) {
    Record({Kind::kLength, NumberOf(file), static_cast<std::uint64_t>(length), "", ""});
  }
  return result;
}

STANDS_BETWEEN int unlink(char const* path) noexcept {
  static auto* const real = Behind<int(char const*)>("unlink");
  auto const lock = Busy();
  int const result = real(path);
  RecordPath(Kind::kUnname, path, result);
  return result;
}

STANDS_BETWEEN int unlinkat(int directory, char const* path, int flags) noexcept {
  static auto* const real = Behind<int(int, char const*, int)>("unlinkat");
  auto const lock = Busy();
  int const result = real(directory, path, flags);
  RecordPath(KindOfRemoval((flags & AT_REMOVEDIR) != 0), PathIn(directory, path).c_str(), result);
  return result;
}

STANDS_BETWEEN int remove(char const* path) noexcept {
  static auto* const real = Behind<int(char const*)>("remove");
  auto const lock = Busy();
  bool const was_directory = std::filesystem::is_directory(std::filesystem::symlink_status(path));
  int const result = real(path);
  RecordPath(KindOfRemoval(was_directory), path, result);
  return result;
}

STANDS_BETWEEN int rename(char const* from, char const* to) noexcept {
  static auto* const real = Behind<int(char const*, char const*)>("rename");
  auto const lock = Busy();
  int const result = real(from, to);
  if (!IsRecording() || result != 0) return result;
  auto const old_name = Inside(from);
  auto const new_name = Inside(to);
  if (old_name.has_value() && new_name.has_value()) {
    Record({Kind::kRename, 0, 0, *new_name, *old_name});
  }
  return result;
}

STANDS_BETWEEN int mkdir(char const* path, mode_t mode) noexcept {
  static auto* const real = Behind<int(char const*, mode_t)>("mkdir");
  auto const lock = Busy();
  int const result = real(path, mode);
  RecordPath(Kind::kMakeDirectory, path, result);
  return result;
}

STANDS_BETWEEN int rmdir(char const* path) noexcept {
  static auto* const real = Behind<int(char const*)>("rmdir");
  auto const lock = Busy();
  int const result = real(path);
  RecordPath(Kind::kRemoveDirectory, path, result);
  return result;
}

STANDS_BETWEEN void* mmap(void* where, std::size_t size, int protection, int flags, int file,
                          off_t at) noexcept {
  static auto* const real = Behind<void*(void*, std::size_t, int, int, int, off_t)>("mmap");
  if (file < 0) return real(where, size, protection, flags, file, at);
  auto const lock = Busy();
  void* const begin = real(where, size, protection, flags, file, at);
  RememberMap(begin, size, protection, flags, file, at);
  return begin;
}

STANDS_BETWEEN int munmap(void* begin, std::size_t size) noexcept {
  static auto* const real = Behind<int(void*, std::size_t)>("munmap");
  if (!IsRecording()) return real(begin, size);
  auto const lock = Busy();
  ForgetMap(begin);
  return real(begin, size);
}
