#ifndef SAGLEME_BENCH_WORKER_H
#define SAGLEME_BENCH_WORKER_H

// A child process that works on request, so that several databases can take turns, each in
// a process of its own, and so that what a process does for the first time can be measured again.

#include <functional>

namespace bench {

// This process and those that it makes from now on stay on the processor that it is on, so that
// sides that take turns have the same one. For sides that work in one thread.
void StayOnOneProcessor();

class Worker {
 public:
  // Does what a command stands for and returns a figure of it.
  using Task = std::function<double(int command)>;

  // `prepare` runs in the child. The parent goes on at once.
  explicit Worker(std::function<Task()> const& prepare);
  ~Worker();
  Worker(Worker const&) = delete;
  Worker& operator=(Worker const&) = delete;

  // Waits for the figure. Throws a runtime_error when the child failed, which says why itself.
  double Run(int command);

 private:
  int to_child_ = -1;
  int from_child_ = -1;
  int child_ = 0;
};

}  // namespace bench

#endif
