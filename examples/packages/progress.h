#ifndef PACKAGES_PROGRESS_H
#define PACKAGES_PROGRESS_H

// How far a long job has come: a bar with a rate on a terminal, a plain line at every tenth
// elsewhere.

#include <chrono>
#include <cstdint>
#include <string>

namespace packages {

class Progress {
 public:
  // `total` 0: unknown; every step is shown then, without a rate.
  Progress(std::string label, int64_t total);
  ~Progress();
  Progress(Progress const&) = delete;
  Progress& operator=(Progress const&) = delete;

  void Advance(int64_t count = 1);
  // Ends the line, so that something else can be written. Done by the destructor too.
  void Finish();

 private:
  void Draw();
  std::string Text() const;
  double Rate() const;

  std::string const label_;
  int64_t const total_;
  bool const is_terminal_;
  int64_t done_ = 0;
  int64_t drawn_ = 0;
  bool line_is_open_ = false;
  std::chrono::steady_clock::time_point const start_ = std::chrono::steady_clock::now();
};

}  // namespace packages

#endif
