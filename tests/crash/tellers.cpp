#include "crash/tellers.h"

#include <algorithm>
#include <sstream>
#include <thread>
#include <vector>

namespace crash_test {

void WorkUntilTheEnd(Channel& channel, Bank& bank, std::function<void()> const& ready) {
  Progress const done = bank.Done();
  auto const say = [&](std::size_t teller, std::int64_t step) {
    channel.Say(std::to_string(teller) + " " + std::to_string(step));
  };
  for (std::size_t i = 0; i < done.size(); ++i) say(i, done[i]);
  if (ready) ready();
  std::vector<std::thread> threads;
  for (std::size_t i = 0; i < done.size(); ++i) {
    threads.emplace_back([&, i] {
      sagleme::Context const context(bank.database());
      for (;;) say(i, bank.Step(context, static_cast<int>(i)));
    });
  }
  for (std::thread& thread : threads) thread.join();
}

void Note(std::string const& line, Progress& acknowledged) {
  std::istringstream fields(line);
  std::size_t teller = 0;
  std::int64_t step = 0;
  fields >> teller >> step;
  acknowledged.at(teller) = std::max(acknowledged.at(teller), step);
}

void NoteRest(Child& child, Progress& acknowledged) {
  while (std::optional<std::string> const line = child.Next()) Note(*line, acknowledged);
}

void ExpectWholeAfter(std::string const& directory, std::uint64_t seed,
                      Progress const& acknowledged) {
  InChild([&] {
    Bank bank(directory, seed, {.no_sync = true});
    Progress const done = bank.Done();
    for (std::size_t i = 0; i < done.size(); ++i) {
      EXPECT_GE(done[i], acknowledged[i]) << "teller " << i;
      EXPECT_LE(done[i], acknowledged[i] + 1) << "teller " << i;
    }
    bank.ExpectWhole();
  });
}

}  // namespace crash_test
