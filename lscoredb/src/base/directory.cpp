#include "directory.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "fork.h"
#include "open_error.h"

namespace lscore {

void SyncDirectory(std::string const& path) {
  int const directory = OpenKept(path.c_str(), O_RDONLY | O_DIRECTORY);
  if (directory < 0) ThrowCannotOpen(path, errno);
  int const error = fsync(directory) == 0 ? 0 : errno;
  CloseKept(directory);
  if (error != 0 && error != EINVAL && error != ENOTSUP) ThrowCannotOpen(path, error);
}

// The group first: a file that stays in the writer's own group does not get more permissions.
void CopyPermissions(std::string const& from, int file) noexcept {
  constexpr mode_t kPermissions = 0666;
  struct stat model {};
  struct stat now {};
  if (stat(from.c_str(), &model) != 0 || fstat(file, &now) != 0) return;
  if (now.st_gid != model.st_gid && fchown(file, static_cast<uid_t>(-1), model.st_gid) != 0) return;
  static_cast<void>(fchmod(file, model.st_mode & kPermissions) == 0);
}

}  // namespace lscore
