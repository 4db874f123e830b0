#include "output/writer.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "base/failure.h"

namespace tool {
namespace {

constexpr std::size_t kBufferSize = 64 * 1024;

// The error, or 0.
int WriteAll(int file, std::string_view text) {
  while (!text.empty()) {
    ssize_t const written = write(file, text.data(), text.size());
    if (written < 0 && errno == EINTR) continue;
    if (written < 0) return errno;
    text.remove_prefix(static_cast<std::size_t>(written));
  }
  return 0;
}

}  // namespace

void FileWriter::Write(std::string_view text) {
  if (error_ != 0) Fail();
  buffer_ += text;
  if (buffer_.size() >= kBufferSize) Flush();
}

void FileWriter::Flush() {
  if (error_ == 0) error_ = WriteAll(file_, buffer_);
  buffer_.clear();
  if (error_ != 0) Fail();
}

void FileWriter::Fail() const {
  if (error_ == EPIPE) throw OutputClosed();
  throw Failure(Exit::kRefused, fmt::format("cannot write {}: {}", name_, std::strerror(error_)),
                "The output is incomplete.");
}

NewFileWriter::~NewFileWriter() { close(opened_); }

bool NewFileWriter::empty() const {
  struct stat status = {};
  return fstat(opened_, &status) != 0 || status.st_size == 0;
}

int NewFileWriter::Open(std::string const& path, bool append) {
  int const kept = append ? O_APPEND : O_TRUNC;
  int const file = open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC | kept, 0666);
  if (file >= 0) return file;
  throw Failure(Exit::kUsage, fmt::format("cannot write {}: {}", path, std::strerror(errno)));
}

void ReserveStandardFiles() {
  for (int const file : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
    if (fcntl(file, F_GETFD) != -1) continue;
    // Read-only: writes to a closed standard output must fail, not vanish.
    open("/dev/null", file == STDERR_FILENO ? O_WRONLY : O_RDONLY);
  }
}

}  // namespace tool
