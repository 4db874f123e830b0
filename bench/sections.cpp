#include "sections.h"

#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <exception>
#include <filesystem>
#include <stdexcept>

namespace bench {
namespace {

void WriteAll(int file, std::string const& text) {
  for (std::size_t done = 0; done < text.size();) {
    ssize_t const written = write(file, text.data() + done, text.size() - done);
    if (written <= 0) _exit(2);
    done += static_cast<std::size_t>(written);
  }
}

std::string ReadAll(int file) {
  std::string text;
  std::array<char, 4096> some{};
  for (ssize_t got = 0; (got = read(file, some.data(), some.size())) > 0;) {
    text.append(some.data(), static_cast<std::size_t>(got));
  }
  return text;
}

// Ends without destructors of the process, which are the parent's.
[[noreturn]] void RunChild(std::function<std::vector<Result>()> const& section, int out) {
  try {
    WriteAll(out, JsonOf(section()));
    _exit(0);
  } catch (std::exception const& error) {
    WriteAll(out, error.what());
    _exit(1);
  }
}

}  // namespace

std::string Settings::Directory(std::string const& name) const {
  std::string const path = directory + "/" + name;
  std::filesystem::create_directories(path);
  return path;
}

std::vector<Result> InOwnProcess(std::function<std::vector<Result>()> const& section) {
  std::array<int, 2> ends{};
  if (pipe(ends.data()) != 0) throw std::runtime_error("no pipe");
  pid_t const child = fork();
  if (child < 0) throw std::runtime_error("no process");
  if (child == 0) {
    close(ends[0]);
    RunChild(section, ends[1]);
  }
  close(ends[1]);
  std::string const text = ReadAll(ends[0]);
  close(ends[0]);
  int state = 0;
  waitpid(child, &state, 0);
  if (!WIFEXITED(state)) throw std::runtime_error("a part of the benchmark crashed");
  if (WEXITSTATUS(state) != 0) throw std::runtime_error(text);
  return ResultsOf(text);
}

}  // namespace bench
