// The other process of the process tests. Takes a command and a directory; says on its output what
// it has done, one line each, as soon as it has.

#include <cstdio>
#include <cstdlib>
#include <string>

#include "process_world.h"

namespace lscoredb_test {
namespace {

void Say(std::uint64_t number) {
  std::printf("%llu\n", static_cast<unsigned long long>(number));
  std::fflush(stdout);
}

// Waits until the parent closes its end or writes a line.
void Wait() {
  int next = std::getchar();
  while (next != EOF && next != '\n') next = std::getchar();
}

// Commits pairs of rows that cancel each other out, `count` of them or, for 0, until killed.
void Fill(Session& session, std::int64_t count) {
  for (std::int64_t i = 1; count == 0 || i <= count; ++i) Say(CommitPair(session, i));
}

void AddToAll(Session& session, std::int64_t amount) {
  session.Begin();
  PairWorld const world(session);
  for (Oid const row : session.Scan(world.index))
    session.PutLong(row, kPairValue, *session.Long(row, kPairValue) + amount);
  session.Commit();
}

// Holds a snapshot, and a write that is not committed, until the test resumes it.
void Hold(Session& session) {
  session.Begin();
  PairWorld const world(session);
  Say(session.Scan(world.index).size());
  session.Insert(world.layout);
  Wait();
  session.Rollback();
  session.Begin();
  Say(session.Scan(world.index).size());
}

int Run(std::string const& command, std::string const& directory, std::int64_t argument) {
  Database database(directory);
  Session session(database);
  if (command == "fill") {
    Fill(session, argument);
  } else if (command == "add") {
    AddToAll(session, argument);
  } else if (command == "hold") {
    Hold(session);
  } else {
    return EXIT_FAILURE;
  }
  return EXIT_SUCCESS;
}

}  // namespace
}  // namespace lscoredb_test

int main(int count, char** arguments) {
  if (count != 4) return EXIT_FAILURE;
  try {
    return lscoredb_test::Run(arguments[1], arguments[2], std::atoll(arguments[3]));
  } catch (std::exception const& failure) {
    std::fprintf(stderr, "%s\n", failure.what());
    return EXIT_FAILURE;
  }
}
