#include "crash/tellers.h"

#include <algorithm>
#include <numeric>
#include <sstream>
#include <thread>

namespace crash_test {

Tellers EveryTeller() {
  Tellers all(Progress{}.size());
  std::iota(all.begin(), all.end(), 0);
  return all;
}

void WorkUntilTheEnd(Listener const& listener, Bank& bank, Tellers const& tellers,
                     std::function<void()> const& ready) {
  Progress const done = bank.Done();
  auto const say = [&](std::size_t teller, std::int64_t step) {
    listener(std::to_string(teller) + " " + std::to_string(step));
  };
  for (std::size_t const teller : tellers) say(teller, done[teller]);
  if (ready) ready();
  std::vector<std::thread> threads;
  for (std::size_t const teller : tellers) {
    threads.emplace_back([&, teller] {
      sagleme::Context const context(bank.database());
      for (;;) say(teller, bank.Step(context, static_cast<int>(teller)));
    });
  }
  for (std::thread& thread : threads) thread.join();
}

void WorkUntilTheEnd(Channel& channel, Bank& bank, std::function<void()> const& ready) {
  WorkUntilTheEnd([&](std::string const& line) { channel.Say(line); }, bank, EveryTeller(), ready);
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

void Said::Hear(std::string_view line) {
  bool const of_disk = line.starts_with(kSynced);
  if (of_disk) line.remove_prefix(kSynced.size());
  Note(std::string(line), of_disk ? synced : acknowledged);
}

void ExpectWholeAfter(std::string const& directory, std::uint64_t seed,
                      Progress const& acknowledged) {
  ExpectWholeBetween(directory, seed, acknowledged, acknowledged);
}

void ExpectWholeBetween(std::string const& directory, std::uint64_t seed, Progress const& least,
                        Progress const& most) {
  InChild([&] {
    Bank bank(directory, seed, {.no_sync = true});
    Progress const done = bank.Done();
    for (std::size_t i = 0; i < done.size(); ++i) {
      EXPECT_GE(done[i], least[i]) << "teller " << i;
      EXPECT_LE(done[i], most[i] + 1) << "teller " << i;
    }
    bank.ExpectWhole();
  });
}

}  // namespace crash_test
