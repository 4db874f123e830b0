#ifndef SAGLEME_TESTS_CRASH_DIRECTORY_H
#define SAGLEME_TESTS_CRASH_DIRECTORY_H

// A directory of its own for a test, gone with the object.

#include <cstdlib>
#include <filesystem>
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

}  // namespace crash_test

#endif
