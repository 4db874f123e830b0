#ifndef SAGLEME_HOST_CREATION_LOCK_HPP
#define SAGLEME_HOST_CREATION_LOCK_HPP

// One creator of a database at a time, over all threads and processes.

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <string>

namespace sagleme::detail {

// Waits for others that hold a lock of the directory, and holds it while it lives. The lock is on
// the directory itself, so it leaves no file, and ends with a process that dies. A file system that
// has no such locks is used without.
class CreationLock {
 public:
  explicit CreationLock(std::string const& directory)
      : descriptor_(open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)) {
    while (descriptor_ != -1 && flock(descriptor_, LOCK_EX) != 0 && errno == EINTR) {
    }
  }
  ~CreationLock() {
    if (descriptor_ != -1) close(descriptor_);
  }
  CreationLock(CreationLock const&) = delete;
  CreationLock& operator=(CreationLock const&) = delete;

 private:
  int descriptor_;
};

}  // namespace sagleme::detail

#endif
