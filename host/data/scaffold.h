#ifndef SAGLEME_HOST_DATA_SCAFFOLD_H
#define SAGLEME_HOST_DATA_SCAFFOLD_H

#include <string>

namespace sagleme {

// A directory beside the target of a new database, in which the database is built. It is removed
// with the object. What a killed process leaves is removed by the next one with the same target.
class Scaffold {
 public:
  // Failure of kRefused when the target exists, or another process builds there.
  explicit Scaffold(std::string target);
  ~Scaffold();
  Scaffold(Scaffold const&) = delete;
  Scaffold& operator=(Scaffold const&) = delete;

  // The directory to build in, and a name for temporary data.
  std::string database() const { return path_ + "/database"; }
  std::string scratch() const { return path_ + "/dump"; }

  // Syncs the database and renames it to the target. REQUIRES: it is closed.
  void Finish();

 private:
  void Lock();

  std::string target_;
  std::string path_;
  int lock_ = -1;
};

}  // namespace sagleme

#endif
