// Processes that are forked off one whose threads open databases. Not under sanitizers: a thread
// may have held the lock of their heap at the fork, and nobody frees it in the child.

#include <unistd.h>

#include <atomic>
#include <thread>
#include <vector>

#include "other_process.h"
#include "process_world.h"

namespace lscoredb_test {
namespace {

constexpr unsigned kPatience = 30;  // seconds, for a child that might wait for ever

// A thread that is not there in the child may have held anything at the time of the fork.
TEST(ForkWhileOthersOpenTest, Child_OpensAndEnds) {
  TemporaryDirectory directory;
  std::atomic<bool> over{false};
  std::vector<std::thread> others;
  for (int i = 0; i < 3; ++i) {
    others.emplace_back([&, i] {
      std::string const own = directory.path() + "/" + std::to_string(i);
      while (!over) {
        Database const database(own);
        Session const session(database);
      }
    });
  }
  for (int i = 0; i < 60 && !testing::Test::HasFailure(); ++i) {
    InAnotherProcess([&] {
      alarm(kPatience);
      Database const database(directory.path() + "/child");
      Session session(database);
      CommitPair(session, 1);
    });
  }
  over = true;
  for (std::thread& other : others) other.join();
}

}  // namespace
}  // namespace lscoredb_test
