#ifndef SAGLEME_TESTS_BOOTSTRAP_BOOTSTRAP_TEST_H
#define SAGLEME_TESTS_BOOTSTRAP_BOOTSTRAP_TEST_H

// The fixture of tests in which a database is left and taken up again: each question is asked in a
// process of its own, since what a process knows of a database lasts as long as the process.

#include <functional>
#include <string>
#include <vector>

#include "support/catalogue_definition.h"
#include "support/database.h"

namespace sagleme_test {

using Lines = std::vector<std::string>;

// The exit status of a process that ran into a trap.
inline constexpr int kTrapped = 128 + 6;

struct Outcome {
  uint32_t status = 0;
  int yields = 0;
  std::string text;  // of the failure
};

class BootstrapTest : public ::testing::Test {
 protected:
  // The exit status of a process that opens the database and works on it.
  int Run(std::function<void(Database&)> const& work);
  // What `question` answers.
  Lines Ask(std::function<Lines(Database&)> const& question);

  Outcome Bootstrap();
  Outcome BootstrapReadOnly();
  Outcome StartUp();
  void BootstrapUpTo(int yields);
  // With the layer started, in a transaction that is committed.
  void Change(std::function<void()> const& change);
  // The same without start-up, for a database that would be refused by it.
  void ChangeRaw(std::function<void()> const& change);
  Lines Catalogue();
  Lines Objects();

  // A database that is all there, and says so.
  void ExpectCurrent();
  // Bootstrap of a database that stands succeeds with that number of yields and ends in the
  // catalogue of a new one.
  void ExpectRepaired(int yields);

 private:
  TemporaryDirectory directory_;
  std::string const place_ = NewPlace(directory_.path() + "/database");
};

}  // namespace sagleme_test

#endif
