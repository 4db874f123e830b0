#ifndef SAGLEME_HOST_CREATION_LOCK_HPP
#define SAGLEME_HOST_CREATION_LOCK_HPP

// One creator of a database at a time, over all threads and processes, and on a server over all
// machines.

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <sagleme/host/errors.hpp>
#include <string>

namespace sagleme::detail {

// Waits for others that hold the lock of the place, and holds it while it lives. In a directory it
// is a lock on the directory itself, so it leaves no file, and ends with a process that dies. A
// file system that has no such locks is used without. On a server it is the kernel's.
class CreationLock {
 public:
  CreationLock(lscoredb* database, std::string const& place) {
    if (IsServerUrl(place)) {
      CheckOpened(lscoredb_lock_creation(database), place);
      server_ = database;
      return;
    }
    descriptor_ = open(place.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    while (descriptor_ != -1 && flock(descriptor_, LOCK_EX) != 0 && errno == EINTR) {
    }
  }
  ~CreationLock() {
    if (descriptor_ != -1) close(descriptor_);
    if (server_ != nullptr) lscoredb_unlock_creation(server_);
  }
  CreationLock(CreationLock const&) = delete;
  CreationLock& operator=(CreationLock const&) = delete;

 private:
  int descriptor_ = -1;
  lscoredb* server_ = nullptr;
};

}  // namespace sagleme::detail

#endif
