#ifndef SAGLEME_HOST_JOBS_RUNNER_H
#define SAGLEME_HOST_JOBS_RUNNER_H

// Who runs a job: a process, told from all others of the machine's history, and one run inside it.
//
//   BOOT/NAMESPACE/PID/START/TOKEN/HOST
//
// The boot and the namespace of process numbers say where PID means something, the start tells a
// process from later ones with its number, and the random token one run from another. A forked
// child has another PID and so is not its parent.

#include <string>

namespace sagleme::jobs {

// A run of this process, alive from construction to destruction.
class Runner {
 public:
  Runner();
  ~Runner();
  Runner(Runner const&) = delete;
  Runner& operator=(Runner const&) = delete;

  std::string const& text() const { return text_; }

 private:
  std::string token_;
  std::string text_;
};

enum class Life { kEnded, kLive, kUnknown };

// Of a run that any process recorded. kUnknown: its processes cannot be seen from here.
Life LifeOf(std::string const& runner);

// "process 4711", or "process 4711 on HOST" for one whose life is unknown.
std::string DescribeRunner(std::string const& runner);

}  // namespace sagleme::jobs

#endif
