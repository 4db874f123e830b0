#ifndef SAGLEME_HOST_DATA_SCAFFOLD_H
#define SAGLEME_HOST_DATA_SCAFFOLD_H

#include <string>

namespace sagleme {

// A directory beside the place of a new database, in which that grows. It is removed with the
// object; what it leaves when the process is killed the next one for the same place removes.
class Scaffold {
 public:
  // Failure of kRefused when the place is taken, or another process builds for it.
  explicit Scaffold(std::string place);
  ~Scaffold();
  Scaffold(Scaffold const&) = delete;
  Scaffold& operator=(Scaffold const&) = delete;

  // Where the database is to grow, and a name for what is needed meanwhile.
  std::string database() const { return path_ + "/database"; }
  std::string scratch() const { return path_ + "/dump"; }

  // Gives the database its place, once it is on the disk. REQUIRES: it is closed.
  void Finish();

 private:
  void Lock();

  std::string place_;
  std::string path_;
  int lock_ = -1;
};

}  // namespace sagleme

#endif
