#include "commands/files.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <iterator>

#include "base/failure.h"
#include "base/interrupt.h"

namespace tool {
namespace {

class FileBuffer : public std::streambuf {
 public:
  FileBuffer(int file, std::string name) : file_(file), name_(std::move(name)) {}
  ~FileBuffer() override {
    if (file_ != STDIN_FILENO) close(file_);
  }

 protected:
  int_type underflow() override {
    // A read that has begun does not see Ctrl-C.
    if (!WaitForInput(file_)) throw Interrupted();
    ssize_t const got = read(file_, buffer_.data(), buffer_.size());
    if (got < 0) {
      throw Failure(Exit::kRefused, fmt::format("cannot read {}: {}", name_, std::strerror(errno)));
    }
    setg(buffer_.data(), buffer_.data(), buffer_.data() + got);
    return got == 0 ? traits_type::eof() : traits_type::to_int_type(buffer_[0]);
  }
  pos_type seekoff(off_type offset, std::ios_base::seekdir from, std::ios_base::openmode) override {
    int const whence = from == std::ios_base::beg ? SEEK_SET : SEEK_CUR;
    if (from == std::ios_base::cur) offset -= egptr() - gptr();
    off_t const place = lseek(file_, offset, whence);
    if (place >= 0) setg(nullptr, nullptr, nullptr);
    return place;
  }
  pos_type seekpos(pos_type place, std::ios_base::openmode which) override {
    return seekoff(off_type(place), std::ios_base::beg, which);
  }

 private:
  int file_;
  std::string name_;
  std::array<char, std::size_t{256} * 1024> buffer_{};
};

class FileStream : public std::istream {
 public:
  FileStream(int file, std::string const& name) : std::istream(nullptr), buffer_(file, name) {
    rdbuf(&buffer_);
  }

 private:
  FileBuffer buffer_;
};

}  // namespace

std::unique_ptr<std::istream> OpenFile(std::string const& name) {
  if (name == "-") return std::make_unique<FileStream>(STDIN_FILENO, "standard input");
  std::error_code ignored;
  if (std::filesystem::is_directory(name, ignored)) {
    throw Failure(Exit::kUsage, fmt::format("cannot read {}: it is a directory", name));
  }
  int const file = open(name.c_str(), O_RDONLY | O_CLOEXEC);
  if (file < 0) {
    throw Failure(Exit::kUsage, fmt::format("cannot read {}: {}", name, std::strerror(errno)));
  }
  return std::make_unique<FileStream>(file, name);
}

std::string ReadFile(std::string const& name) {
  auto const file = OpenFile(name);
  return {std::istreambuf_iterator<char>(file->rdbuf()), std::istreambuf_iterator<char>()};
}

std::uint64_t SizeOfFile(std::string const& name) {
  struct stat found {};
  int const failed = name == "-" ? fstat(STDIN_FILENO, &found) : stat(name.c_str(), &found);
  bool const known = failed == 0 && S_ISREG(found.st_mode);
  return known ? static_cast<std::uint64_t>(found.st_size) : 0;
}

}  // namespace tool
