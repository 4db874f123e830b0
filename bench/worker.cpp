#include "worker.h"

#include <sched.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <exception>
#include <iostream>
#include <stdexcept>

namespace bench {
namespace {

// Commands and figures are smaller than what a pipe takes at once.
template <typename Value>
bool Receive(int file, Value* value) {
  return read(file, value, sizeof *value) == static_cast<ssize_t>(sizeof *value);
}
template <typename Value>
bool Send(int file, Value value) {
  return write(file, &value, sizeof value) == static_cast<ssize_t>(sizeof value);
}

void Serve(std::function<Worker::Task()> const& prepare, int in, int out) {
  Worker::Task const task = prepare();
  for (int command = 0; Receive(in, &command);) {
    if (!Send(out, task(command))) return;
  }
}

// Ends without destructors of the process, which are the parent's.
[[noreturn]] void RunChild(std::function<Worker::Task()> const& prepare, int in, int out) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  try {
    Serve(prepare, in, out);
    _exit(0);
  } catch (std::exception const& error) {
    std::cerr << "bench: " << error.what() << std::endl;
    _exit(1);
  }
}

std::array<int, 2> MakePipe() {
  std::array<int, 2> ends{};
  if (pipe(ends.data()) != 0) throw std::runtime_error("no pipe");
  return ends;
}

}  // namespace

void StayOnOneProcessor() {
  cpu_set_t one;
  CPU_ZERO(&one);
  int const current = sched_getcpu();
  if (current < 0) throw std::runtime_error("no processor");
  CPU_SET(static_cast<std::size_t>(current), &one);
  if (sched_setaffinity(0, sizeof one, &one) != 0) throw std::runtime_error("no such processor");
}

Worker::Worker(std::function<Task()> const& prepare) {
  std::array<int, 2> const commands = MakePipe();
  std::array<int, 2> const figures = MakePipe();
  child_ = fork();
  if (child_ < 0) throw std::runtime_error("no process");
  if (child_ == 0) {
    close(commands[1]);
    close(figures[0]);
    RunChild(prepare, commands[0], figures[1]);
  }
  close(commands[0]);
  close(figures[1]);
  to_child_ = commands[1];
  from_child_ = figures[0];
}

// Without an end of its pipes in a later child it sees that no command comes any more; one that has
// such an end is ended.
Worker::~Worker() {
  close(to_child_);
  close(from_child_);
  kill(child_, SIGKILL);
  waitpid(child_, nullptr, 0);
}

double Worker::Run(int command) {
  double figure = 0;
  if (!Send(to_child_, command) || !Receive(from_child_, &figure)) {
    throw std::runtime_error("a process of the benchmark failed");
  }
  return figure;
}

}  // namespace bench
