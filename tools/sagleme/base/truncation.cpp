#include "base/truncation.h"

#include <fcntl.h>
#include <linux/limits.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <charconv>
#include <csignal>
#include <cstdint>
#include <string_view>

#include "base/failure.h"

namespace tool {
namespace {

// Everything below runs in the handler of a signal, at any moment of any thread: no memory, no
// locks, system calls that a handler may make. One thread gets here, so its buffers are static.

constexpr std::size_t kLongestLine = PATH_MAX + 128;

// The lines of a file, without their ends. What is too long for a line is cut.
class Lines {
 public:
  explicit Lines(char const* path) : file_(open(path, O_RDONLY | O_CLOEXEC)) {}
  ~Lines() { close(file_); }
  Lines(Lines const&) = delete;
  Lines& operator=(Lines const&) = delete;

  bool Next(std::string_view* line) {
    static char text[kLongestLine];
    std::size_t size = 0;
    char next = 0;
    while (Read(&next) && next != '\n') {
      if (size < sizeof text) text[size++] = next;
    }
    *line = {text, size};
    return next == '\n';
  }

 private:
  bool Read(char* out) {
    if (at_ == end_) {
      ssize_t const got = read(file_, buffer_, sizeof buffer_);
      at_ = 0;
      end_ = got > 0 ? static_cast<std::size_t>(got) : 0;
      if (end_ == 0) return false;
    }
    *out = buffer_[at_++];
    return true;
  }

  int file_;
  char buffer_[512];
  std::size_t at_ = 0;
  std::size_t end_ = 0;
};

// Takes a hexadecimal number and the character behind it off the text.
bool TakeNumber(std::string_view* text, std::uintptr_t* number) {
  char const* const end = text->data() + text->size();
  auto const [behind, error] = std::from_chars(text->data(), end, *number, 16);
  if (error != std::errc() || behind == end) return false;
  text->remove_prefix(static_cast<std::size_t>(behind - text->data()) + 1);
  return true;
}

// The file that lies in memory where the address points, and where in it that is. The path is
// valid until the next call.
struct MappedByte {
  std::string_view path;
  std::uintptr_t offset = 0;
};

// A line is "BEGIN-END RIGHTS OFFSET DEVICE INODE PATH".
bool FindMappedByte(std::uintptr_t address, MappedByte* found) {
  Lines maps("/proc/self/maps");
  for (std::string_view line; maps.Next(&line);) {
    std::uintptr_t begin = 0;
    std::uintptr_t end = 0;
    std::uintptr_t offset = 0;
    if (!TakeNumber(&line, &begin) || !TakeNumber(&line, &end)) continue;
    if (address < begin || address >= end) continue;
    line.remove_prefix(line.find(' ') + 1);
    if (!TakeNumber(&line, &offset)) return false;
    std::size_t const path = line.find('/');
    if (path == line.npos) return false;
    *found = {line.substr(path), offset + (address - begin)};
    return true;
  }
  return false;
}

bool EndsBefore(MappedByte const& byte) {
  static char path[kLongestLine + 1];
  path[byte.path.copy(path, kLongestLine)] = '\0';
  struct stat status {};
  return stat(path, &status) == 0 && static_cast<std::uintptr_t>(status.st_size) <= byte.offset;
}

// Nothing can be done about a failure to write.
void Say(std::string_view text) {
  [[maybe_unused]] ssize_t const written = write(STDERR_FILENO, text.data(), text.size());
}

void Report(MappedByte const& byte) {
  bool const truncated = EndsBefore(byte);
  Say("sagleme: ");
  Say(byte.path);
  Say(truncated ? " was truncated while it was open\n" : " cannot be read any more\n");
  Say("  The command has ended there, without committing what it was at. "
      "Restore the file from a copy.\n");
}

// Other threads may meet the same at the same time; the process ends with the first.
void OnBusError(int signal, siginfo_t* info, void*) {
  static std::atomic_flag entered = ATOMIC_FLAG_INIT;
  while (entered.test_and_set()) pause();
  MappedByte byte;
  bool const by_access = info->si_code == BUS_ADRERR;
  if (by_access && FindMappedByte(reinterpret_cast<std::uintptr_t>(info->si_addr), &byte)) {
    Report(byte);
    _exit(static_cast<int>(Exit::kFileLost));
  }
  std::signal(signal, SIG_DFL);
  raise(signal);
}

}  // namespace

void ReportTruncatedFiles() {
  struct sigaction action {};
  action.sa_sigaction = OnBusError;
  action.sa_flags = SA_SIGINFO;
  sigaction(SIGBUS, &action, nullptr);
}

}  // namespace tool
