#include "crash/child.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <stdexcept>
#include <utility>

namespace crash_test {
namespace {

int RunBody(std::function<int(Channel&)> const& body, Channel& channel) {
  bool const failed_before = testing::Test::HasFailure();
  try {
    int const status = body(channel);
    bool const failed = !failed_before && testing::Test::HasFailure();
    return failed ? Child::kFailedExpectation : status;
  } catch (std::exception const& failure) {
    std::fprintf(stderr, "in a child: %s\n", failure.what());
    return Child::kException;
  }
}

}  // namespace

void Channel::Say(std::string const& line) const {
  std::string const whole = line + "\n";
  if (write(output_, whole.data(), whole.size()) < 0) std::abort();
}

std::string Channel::Hear() const {
  std::string line;
  for (char next = 0; read(input_, &next, 1) == 1 && next != '\n';) line += next;
  return line;
}

Child::Child(std::function<int(Channel&)> const& body) {
  int input[2];
  int output[2];
  if (pipe2(input, O_CLOEXEC) != 0 || pipe2(output, O_CLOEXEC) != 0) {
    throw std::runtime_error("no pipe");
  }
  std::fflush(nullptr);
  pid_ = fork();
  if (pid_ == 0) {
    close(input[1]);
    close(output[0]);
    Channel channel(input[0], output[1]);
    int const status = RunBody(body, channel);
    std::fflush(nullptr);
    _exit(status);
  }
  close(input[0]);
  close(output[1]);
  input_ = input[1];
  said_ = fdopen(output[0], "r");
}

Child::~Child() {
  if (pid_ > 0) Kill();
  close(input_);
  std::fclose(said_);
}

std::optional<std::string> Child::Next() {
  std::string line;
  for (int next = std::fgetc(said_); next != EOF; next = std::fgetc(said_)) {
    if (next == '\n') return line;
    line += static_cast<char>(next);
  }
  return std::nullopt;
}

// Of a child that ended meanwhile nothing is expected here.
void Child::Send(std::string const& line) const {
  std::string const whole = line + "\n";
  struct sigaction ignore {};
  struct sigaction before {};
  ignore.sa_handler = SIG_IGN;
  sigaction(SIGPIPE, &ignore, &before);
  [[maybe_unused]] auto const sent = write(input_, whole.data(), whole.size());
  sigaction(SIGPIPE, &before, nullptr);
}

void Child::Kill() {
  kill(pid_, SIGKILL);
  Wait();
}

int Child::Wait() {
  int status = -1;
  waitpid(std::exchange(pid_, -1), &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

void InChild(std::function<void()> const& body) {
  Child child([&](Channel&) {
    body();
    return 0;
  });
  EXPECT_EQ(0, child.Wait());
}

}  // namespace crash_test
