#include "crash/volatile_disk.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <random>
#include <vector>

namespace volatile_disk {
namespace {

constexpr std::size_t kSector = 512;

struct Write {
  off_t at;
  std::vector<char> before;  // shorter where the file ended
  std::vector<char> after;
};

struct Disk {
  bool watching = false;
  int file = -1;
  off_t synced_size = 0;
  std::mt19937_64 random;
  std::vector<Write> writes;
};

Disk& TheDisk() {
  static Disk disk;
  return disk;
}

void Put(int file, char const* data, std::size_t size, off_t at) {
  if (lseek(file, at, SEEK_SET) != at) std::abort();
  if (write(file, data, size) != static_cast<ssize_t>(size)) std::abort();
}

off_t SizeOf(int file) {
  struct stat status {};
  if (fstat(file, &status) != 0) std::abort();
  return status.st_size;
}

void TakeBack(Disk const& disk) {
  for (auto write = disk.writes.rbegin(); write != disk.writes.rend(); ++write) {
    Put(disk.file, write->before.data(), write->before.size(), write->at);
  }
  if (ftruncate(disk.file, disk.synced_size) != 0) std::abort();
}

// Sectors reach the disk in any order, and the last ones not at all.
void KeepSome(Disk& disk) {
  for (Write const& write : disk.writes) {
    for (std::size_t done = 0; done < write.after.size(); done += kSector) {
      if (disk.random() % 2 == 0) continue;
      std::size_t const size = std::min(kSector, write.after.size() - done);
      Put(disk.file, write.after.data() + done, size, write.at + static_cast<off_t>(done));
    }
  }
}

}  // namespace

void Watch(std::uint64_t seed) {
  TheDisk().watching = true;
  TheDisk().random.seed(seed);
}

void Writing(int file, void const* data, std::size_t size, off_t at) {
  Disk& disk = TheDisk();
  if (!disk.watching || (fcntl(file, F_GETFL) & O_DSYNC) != 0) return;
  if (disk.writes.empty()) disk.synced_size = SizeOf(file);
  disk.file = file;
  auto const* const bytes = static_cast<char const*>(data);
  Write write{at, std::vector<char>(size), std::vector<char>(bytes, bytes + size)};
  ssize_t const there = pread(file, write.before.data(), size, at);
  write.before.resize(there < 0 ? 0 : static_cast<std::size_t>(there));
  disk.writes.push_back(std::move(write));
}

void Synced() { TheDisk().writes.clear(); }

int LosePower() {
  Disk& disk = TheDisk();
  if (!disk.writes.empty()) {
    TakeBack(disk);
    KeepSome(disk);
  }
  raise(SIGKILL);
  return 0;
}

}  // namespace volatile_disk
