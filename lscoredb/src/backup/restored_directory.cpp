#include "restored_directory.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <set>
#include <string_view>

#include "directory.h"
#include "open_error.h"
#include "status.h"

namespace lscore {
namespace {

constexpr mode_t kDirectoryMode = 0750;
// Inside, so that who waits at a directory that got its name in the meantime finds none to work in.
// The directory itself is locked by those who open the database.
constexpr char const* kLock = "/restore.lock";

std::string WithoutSlashes(std::string path) {
  while (path.size() > 1 && path.ends_with('/')) path.pop_back();
  return path;
}

std::string Above(std::string const& path) {
  std::filesystem::path const above = std::filesystem::path(path).parent_path();
  return above.empty() ? "." : above.string();
}

// Nothing but files of a database is removed.
bool IsOfDatabase(std::string_view name) {
  static std::set<std::string_view> const known{"data.mdb", "data.new", "lock.mdb", "layouts.lock",
                                                "log-0",    "log-1",    "log.lock"};
  return known.contains(name) || name.starts_with("changes");
}

}  // namespace

RestoredDirectory::RestoredDirectory(std::string target)
    : target_(WithoutSlashes(std::move(target))), path_(target_ + ".restoring") {
  std::error_code error;
  bool const there = std::filesystem::exists(target_, error);
  if (error) ThrowCannotOpen(target_, error.value());
  if (there && !std::filesystem::is_empty(target_, error)) {
    if (error) ThrowCannotOpen(target_, error.value());
    ThrowCannotOpen(target_, EEXIST);
  }
  if (mkdir(path_.c_str(), kDirectoryMode) != 0 && errno != EEXIST) ThrowCannotOpen(path_, errno);
  lock_ = std::make_unique<HeldLock>(path_ + kLock);
  RemoveFiles();
  for (std::filesystem::directory_iterator at(path_, error), end; !error && at != end;
       at.increment(error)) {
    if (at->path() != path_ + kLock) ThrowCannotOpen(path_, ENOTEMPTY);
  }
  if (error) ThrowCannotOpen(path_, error.value());
}

RestoredDirectory::~RestoredDirectory() {
  if (finished_) return;
  RemoveFiles();
  unlink((path_ + kLock).c_str());
  rmdir(path_.c_str());
}

void RestoredDirectory::RemoveFiles() const {
  std::error_code ignored;
  std::set<std::string> names;
  for (auto const& entry : std::filesystem::directory_iterator(path_, ignored)) {
    if (IsOfDatabase(entry.path().filename().string())) names.insert(entry.path());
  }
  for (std::string const& name : names) unlink(name.c_str());
}

void RestoredDirectory::Finish() {
  SyncDirectory(path_);
  if (rename(path_.c_str(), target_.c_str()) != 0) ThrowCannotOpen(target_, errno);
  finished_ = true;
  unlink((target_ + kLock).c_str());
  SyncDirectory(Above(target_));
}

}  // namespace lscore
