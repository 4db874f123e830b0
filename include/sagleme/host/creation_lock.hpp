#ifndef SAGLEME_HOST_CREATION_LOCK_HPP
#define SAGLEME_HOST_CREATION_LOCK_HPP

// Lets one thread at a time create a database, among all processes and, on a server, all machines.

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <sagleme/host/errors.hpp>
#include <string>

namespace sagleme::detail {

// Waits for the lock of the place and holds it until destroyed. For a directory it is a lock on the
// directory itself, so it leaves no file, and the system releases it when the process dies; on file
// systems without such locks nothing is locked. On a server it is lscoredb_lock_creation.
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
