// The factory of the kernel's tests over a store with a log: databases in memory have one too, in a
// directory that goes with the process, and turn from one file to the other all the time.

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <vector>

#include "log_of_tests.h"
#include "open_store.h"

namespace lscore {
namespace {

constexpr std::uint64_t kLimit = 8 * 1024;

class Directories {
 public:
  ~Directories() {
    for (std::string const& path : paths_) std::filesystem::remove_all(path);
  }
  std::string const& New() {
    std::string path = testing::TempDir() + "/store-XXXXXX";
    if (mkdtemp(path.data()) == nullptr) throw std::runtime_error("no directory for the test");
    return paths_.emplace_back(path);
  }

 private:
  std::vector<std::string> paths_;
};

Directories the_directories;

}  // namespace

std::unique_ptr<Store> OpenStore(char const* directory, StoreOptions const& options) {
  std::string const path = directory != nullptr ? directory : the_directories.New();
  StoreOptions own = options;
  own.log_limit = kLimit;
  own.sync = false;
  return OpenLogStore(path, own);
}

// No test of these asks for a store that remembers it.
void RefuseLog(Store&) {}

bool StoreExists(char const* directory) {
  return std::filesystem::exists(std::filesystem::path(directory) / "data.mdb");
}

}  // namespace lscore
