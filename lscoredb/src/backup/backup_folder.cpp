#include "backup_folder.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <filesystem>
#include <set>

#include "directory.h"
#include "fork.h"
#include "log_file.h"
#include "open_error.h"
#include "status.h"
#include "system_call.h"

namespace lscore {
namespace {

using namespace backupformat;

constexpr mode_t kDirectoryMode = 0750;
constexpr mode_t kFileMode = 0640;
constexpr std::uint64_t kLargestManifest = std::uint64_t{64} << 20;

// Removes a file, or a directory with the files in it.
void Remove(std::string const& path) {
  std::error_code error;
  std::filesystem::remove_all(path, error);
  if (error) ThrowCannotOpen(path, error.value());
}

std::set<std::string> NamesIn(std::string const& path) {
  std::set<std::string> names;
  std::error_code error;
  for (std::filesystem::directory_iterator at(path, error), end; !error && at != end;
       at.increment(error)) {
    names.insert(at->path().filename());
  }
  if (error) ThrowCannotOpen(path, error.value());
  return names;
}

}  // namespace

void RefuseBackup(Status status, std::string const& path, std::string const& reason) {
  NoteOpenError(path, reason);
  Throw(status);
}

HeldLock::HeldLock(std::string const& path)
    : file_(OpenKept(path.c_str(), O_RDWR | O_CREAT, kFileMode)) {
  if (file_ < 0) ThrowCannotOpen(path, errno);
  if (flock(file_, LOCK_EX | LOCK_NB) == 0) return;
  int const error = errno;
  CloseKept(file_);
  if (error != EWOULDBLOCK) ThrowCannotOpen(path, error);
  RefuseBackup(LSCOREDB_BACKUP_BUSY, path, "somebody else holds it");
}

HeldLock::~HeldLock() { CloseKept(file_); }

bool BackupFolder::HasManifest() const {
  std::string const path = In(kManifestName);
  if (access(path.c_str(), F_OK) == 0) return true;
  if (errno != ENOENT && errno != ENOTDIR) ThrowCannotOpen(path, errno);
  return false;
}

BackupManifest BackupFolder::Read() const {
  if (access(path_.c_str(), F_OK) != 0) ThrowCannotOpen(path_, errno);
  std::string const path = In(kManifestName);
  LogFile file;
  if (!HasManifest() || !file.Open(path, LogFile::Access::kRead)) {
    RefuseBackup(LSCOREDB_NOT_A_BACKUP, path_, "it has no manifest of a backup");
  }
  std::uint64_t const size = file.Size();
  if (size > kLargestManifest) RefuseBackup(LSCOREDB_BACKUP_DAMAGED, path, "it is no manifest");
  std::string bytes(size, '\0');
  bytes.resize(file.Read(0, bytes.data(), bytes.size()));
  try {
    return ParseManifest(bytes);
  } catch (Failure const& failure) {
    bool const newer = failure.status() == LSCOREDB_NEWER_FORMAT;
    RefuseBackup(failure.status(), path,
                 newer ? "a newer version of the kernel wrote it" : "its bytes are damaged");
  }
}

void BackupFolder::Create() const {
  if (mkdir(path_.c_str(), kDirectoryMode) == 0) {
    std::filesystem::path const above = std::filesystem::path(path_).parent_path();
    return SyncDirectory(above.empty() ? "." : above.string());
  }
  if (errno != EEXIST) ThrowCannotOpen(path_, errno);
}

// Parts without a manifest are not leftovers of somebody who began, since the manifest is there
// before the first part is.
BackupManifest BackupFolder::OpenToWrite(std::uint64_t identity) {
  Create();
  if (!HasManifest()) {
    for (std::string const& name : NamesIn(path_)) {
      if (name == kLockName || name == kNewManifestName) continue;
      RefuseBackup(LSCOREDB_NOT_A_BACKUP, path_,
                   "it holds " + name + " and no manifest of a backup");
    }
  }
  lock_ = std::make_unique<HeldLock>(In(kLockName));
  if (!HasManifest()) {
    BackupManifest begun;
    begun.identity = identity;
    Replace(begun);
  }
  BackupManifest manifest = Read();
  if (manifest.identity != identity) {
    RefuseBackup(LSCOREDB_OTHER_BACKUP, path_,
                 "it is of the database with the identity " + std::to_string(manifest.identity) +
                     ", not " + std::to_string(identity));
  }
  RemoveLeftovers(manifest);
  return manifest;
}

void BackupFolder::RemoveLeftovers(BackupManifest const& manifest) const {
  std::set<std::string> listed;
  for (BackupPart const& part : manifest.parts) listed.insert(NameOf(part));
  for (std::string const& name : NamesIn(path_)) {
    bool const in_the_making =
        name == kNewPartName || name == kNewCopyName || name == kNewManifestName;
    if (in_the_making || (IsPartName(name) && !listed.contains(name))) Remove(In(name));
  }
}

void BackupFolder::Add(BackupManifest& manifest, BackupPart const& part) const {
  std::string const path = PathOf(part);
  if (rename(new_part().c_str(), path.c_str()) != 0) ThrowCannotOpen(path, errno);
  SyncDirectory(path_);
  BackupManifest next = manifest;
  next.parts.push_back(part);
  Replace(next);
  manifest = std::move(next);
}

void BackupFolder::Replace(BackupManifest const& manifest) const {
  std::string const growing = In(kNewManifestName);
  std::string bytes = BytesOf(manifest);
  {
    unlink(growing.c_str());
    LogFile file;
    file.Open(growing, LogFile::Access::kCreate);
    std::array<iovec, 1> piece{{{bytes.data(), bytes.size()}}};
    file.Write(0, piece);
    file.Sync();
  }
  std::string const path = In(kManifestName);
  if (rename(growing.c_str(), path.c_str()) != 0) ThrowCannotOpen(path, errno);
  SyncDirectory(path_);
}

}  // namespace lscore
