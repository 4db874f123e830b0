#include "directory.h"

#include <fcntl.h>
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

}  // namespace lscore
