#ifndef SAGLEME_TESTS_CRASH_DIRECTORY_H
#define SAGLEME_TESTS_CRASH_DIRECTORY_H

// A directory of its own for a test, gone with the object, and what a directory holds.

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <random>
#include <stdexcept>
#include <string>

namespace crash_test {

class Directory {
 public:
  Directory() {
    path_ = (std::filesystem::temp_directory_path() / "sagleme-crash-XXXXXX").string();
    if (mkdtemp(path_.data()) == nullptr) throw std::runtime_error("no directory");
  }
  ~Directory() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  Directory(Directory const&) = delete;
  Directory& operator=(Directory const&) = delete;

  std::string const& path() const { return path_; }
  std::string File() const { return path_ + "/data.mdb"; }
  std::uintmax_t FileSize() const { return std::filesystem::file_size(File()); }

 private:
  std::string path_;
};

// The content of every file below it, by its path there; that of a directory is empty.
inline std::map<std::string, std::string> FilesOf(std::string const& directory) {
  std::map<std::string, std::string> files;
  for (auto const& entry : std::filesystem::recursive_directory_iterator(directory)) {
    std::string const name = entry.path().string().substr(directory.size());
    if (entry.is_directory()) {
      files[name];
      continue;
    }
    std::ifstream file(entry.path(), std::ios::binary);
    files[name] = {std::istreambuf_iterator<char>(file), {}};
  }
  return files;
}

}  // namespace crash_test

#endif
