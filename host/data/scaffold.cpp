#include "data/scaffold.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <sagleme/failure.hpp>
#include <system_error>

namespace sagleme {
namespace {

[[noreturn]] void Refuse(std::string const& what, std::string const& advice = {}) {
  throw Failure(Failure::Kind::kRefused, what, advice);
}

// Syncs a file or a directory to the disk.
void Sync(std::string const& path) {
  int const file = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (file < 0) Refuse(fmt::format("cannot open {}: {}", path, std::strerror(errno)));
  int const failed = fsync(file) == 0 ? 0 : errno;
  close(file);
  if (failed != 0) Refuse(fmt::format("cannot write {}: {}", path, std::strerror(failed)));
}

std::string WithoutSlash(std::string path) {
  while (path.size() > 1 && path.ends_with('/')) path.pop_back();
  return path;
}

}  // namespace

Scaffold::Scaffold(std::string target)
    : target_(WithoutSlash(std::move(target))), path_(target_ + ".loading") {
  std::error_code error;
  if (std::filesystem::exists(target_, error) && !std::filesystem::is_empty(target_, error)) {
    Refuse(fmt::format("{} already exists", target_), "Name a directory that does not exist.");
  }
  std::filesystem::create_directory(path_, error);
  Lock();
  for (auto const& left : std::filesystem::directory_iterator(path_, error)) {
    std::filesystem::remove_all(left.path(), error);
  }
}

void Scaffold::Lock() {
  lock_ = open(path_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (lock_ < 0) Refuse(fmt::format("cannot create {}: {}", path_, std::strerror(errno)));
  if (flock(lock_, LOCK_EX | LOCK_NB) == 0) return;
  close(lock_);
  Refuse(fmt::format("another process is loading a dump into {}", target_), "Wait for it to end.");
}

Scaffold::~Scaffold() {
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
  close(lock_);
}

void Scaffold::Finish() {
  for (auto const& file : std::filesystem::directory_iterator(database())) Sync(file.path());
  Sync(database());
  std::error_code error;
  std::filesystem::remove(target_, error);
  std::filesystem::rename(database(), target_, error);
  if (error) Refuse(fmt::format("cannot create {}: {}", target_, error.message()));
  auto const parent = std::filesystem::absolute(target_).parent_path();
  Sync(parent);
}

}  // namespace sagleme
