#ifndef SAGLEME_BENCH_ENGINE_H
#define SAGLEME_BENCH_ENGINE_H

// What is measured, of each kind of store in its own best way. Every call works through the objects
// selected before and returns a sum over what it read, which is the same for all engines.

#include <lscoredb/host.h>

#include <cstdint>
#include <memory>
#include <span>
#include <stdexcept>
#include <string>

#include "dataset.h"

namespace bench {

using Numbers = std::span<Number const>;
using Sum = std::uint64_t;

// Changes are committed in transactions of so many.
inline constexpr std::size_t kBatch = 1000;
// The writes after one savepoint.
inline constexpr std::size_t kGroup = 10;

class Engine {
 public:
  Engine() = default;
  virtual ~Engine() = default;
  Engine(Engine const&) = delete;
  Engine& operator=(Engine const&) = delete;

  // The objects from `first` on, in transactions of kBatch.
  virtual void Create(Number first, Number count) = 0;

  // Outside of what is measured: a program has its keys or references at hand.
  virtual void Select(Numbers which) { selected_ = which; }

  // The column `plain` of each, in one transaction.
  virtual Sum ReadOne() = 0;
  // The same by calls for kBatch objects, where the engine has such.
  virtual Sum ReadOneTogether() { return ReadOne(); }
  // In a read-only transaction for each.
  virtual Sum ReadOneAlone() = 0;
  // All five columns.
  virtual Sum ReadAll() = 0;
  // Objects by name through the index, and the column `plain`.
  virtual Sum Find() = 0;
  // `count` entries of the index over `indexed`, with the column `plain` or only the identities.
  virtual Sum Scan(std::size_t count) = 0;
  virtual Sum ScanIds(std::size_t count) = 0;
  // The same by pages, where the engine has such.
  virtual Sum ScanIdPages(std::size_t count) { return ScanIds(count); }

  virtual void UpdatePlain(std::int64_t value) = 0;
  // Puts another value, from which the next call with it comes back to the first.
  virtual void UpdateIndexed(std::int64_t flip) = 0;

  // Puts what commits have postponed into the data file.
  virtual void Checkpoint() {}

  // As UpdatePlain, in one transaction that is kept: each group of kGroup follows a savepoint
  // and is taken back to it. Only for engines with savepoints.
  virtual void UpdateAndTakeBack(std::int64_t) { throw std::logic_error("no savepoints"); }

  virtual void Close() = 0;
  // Opens what was closed, up to the first column read.
  virtual Sum Open() = 0;
  // Opens what was closed until it can be worked with. Nothing but Close may follow. What has no
  // step of its own for that reads a first column.
  virtual void Start() { Open(); }
  virtual std::uint64_t Bytes() = 0;

 protected:
  Numbers selected() const { return selected_; }

 private:
  Numbers selected_;
};

// `directory`: where files go; it is there and empty. Durable engines sync every commit.
// `log_limit`: bytes of the log that cause a checkpoint; 0: the kernel's own.
std::unique_ptr<Engine> MakeSagleme(std::string const& directory, bool durable,
                                    std::uint64_t log_limit = 0);
lscoredb* HandleOf(Engine& sagleme);
std::unique_ptr<Engine> MakeLmdb(std::string const& directory, bool durable);
// In memory for an empty name of a directory.
std::unique_ptr<Engine> MakeSqlite(std::string const& directory, bool durable);
std::unique_ptr<Engine> MakeHash();

// One thread's share of an engine for durable commits: each call creates one object and commits.
class Committer {
 public:
  virtual ~Committer() = default;
  virtual void CommitOne(Number number) = 0;
};
std::unique_ptr<Committer> MakeSaglemeCommitter(Engine& engine);
std::unique_ptr<Committer> MakeLmdbCommitter(Engine& engine);
std::unique_ptr<Committer> MakeSqliteCommitter(std::string const& directory);

inline Sum Bits(double value) { return static_cast<Sum>(value * 16); }
inline Sum Bits(std::int64_t value) { return static_cast<Sum>(value); }

}  // namespace bench

#endif
