#include "stores.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "lmdb_store.h"
#include "log_of_tests.h"
#include "memory_store.h"

namespace lscore {
namespace {

// Overwrites all but the head of the file.
void ScribbleOver(std::string const& directory) {
  constexpr std::streamoff kHead = 8192;
  std::fstream file(directory + "/data.mdb", std::ios::in | std::ios::out | std::ios::binary);
  file.seekg(0, std::ios::end);
  auto const size = static_cast<std::streamoff>(file.tellg());
  file.seekp(kHead);
  std::string const bytes(static_cast<std::size_t>(size - kHead), '\x5A');
  file.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

// Directories that go at the end of the process.
class Directories {
 public:
  ~Directories() {
    for (std::string const& path : paths_) std::filesystem::remove_all(path);
  }
  std::string New() {
    std::string path = testing::TempDir() + "/store-XXXXXX";
    if (mkdtemp(path.data()) == nullptr) throw std::runtime_error("no directory for the test");
    return paths_.emplace_back(path);
  }

 private:
  std::vector<std::string> paths_;
};

std::string NewDirectory() {
  static Directories directories;
  return directories.New();
}

TestedStore LogWithLimit(char const* name, std::uint64_t limit) {
  return {name, [limit](StoreOptions options) {
            options.log_limit = limit;
            return OpenLogStore(NewDirectory(), options);
          }};
}

}  // namespace

std::vector<TestedStore> const& NewStores() {
  static std::vector<TestedStore> const stores = {
      {"lmdb", [](StoreOptions const& options) { return LmdbStore::Open(nullptr, options); }},
      {"memory",
       [](StoreOptions const& options) { return std::make_unique<MemoryStore>(options); }},
      // One that never comes to its limit, one that does again and again, and one that is above it
      // with many a commit.
      LogWithLimit("log", StoreOptions().log_limit),
      LogWithLimit("log_turning", 16 * 1024),
      LogWithLimit("log_bypassed", 512),
  };
  return stores;
}

std::vector<TestedFile> const& StoresInFiles() {
  static std::vector<TestedFile> const stores = {
      {"lmdb",
       [](char const* directory, StoreOptions const& options) {
         return LmdbStore::Open(directory, options);
       },
       ScribbleOver},
      {"log", OpenLogStore, ScribbleOver},
  };
  return stores;
}

}  // namespace lscore
