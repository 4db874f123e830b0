#ifndef SAGLEME_HOST_JOBS_STORE_H
#define SAGLEME_HOST_JOBS_STORE_H

// The rows that hold the jobs of a database. Two tables, which the first job makes:
//
//   Sagleme.Internal.Job
//     Kind         ulong   JobKind
//     Description  string  for people
//     Details      string  what is needed to go on, in a form of the kind's own
//     Input        string  how a file was found that the job reads, to tell whether it has changed
//     Runner       string  who works on it (runner.h); null: nobody
//     Reason       string  why it was cut off
//     Position     ulong   where to go on, in units of the kind
//     Done, Total, Rate, Batch, Pause   ulong
//
//   Sagleme.Internal.JobPart
//     Job          ulong   the id of the job's row
//     Number       ulong   ascending in a job
//     Ids          binary  8 bytes each, the lowest first
//
// The parts list objects that a job was given. A job's row is written with each batch, so they are
// not in it.

#include <optional>
#include <sagleme/jobs.hpp>
#include <span>
#include <string>
#include <vector>

namespace sagleme::jobs {

struct Row {
  ObjectId id;
  JobKind kind = JobKind::kVacuum;
  std::string description;
  std::string details;
  std::string input;
  std::string runner;
  std::string reason;
  std::uint64_t position = 0;
  std::uint64_t done = 0;
  std::uint64_t total = 0;
  std::uint64_t rate = 0;
  std::uint64_t batch = 0;
  std::uint64_t pause = 0;  // milliseconds
};

class Store {
 public:
  // Nothing if the database has no jobs and never had any.
  static std::optional<Store> Find(Transaction& transaction);
  // Creates the tables if there are none.
  static Store Make(Transaction& transaction);

  // Oldest first.
  std::vector<Row> All() const;
  std::optional<Row> Read(ObjectId id) const;
  // Sets the id.
  void Add(Row& row) const;
  // All but kind, description and details.
  void Update(Row const& row) const;
  // With its parts. Nothing if there is no such row.
  void Delete(ObjectId id) const;

  void AddIds(ObjectId job, std::span<ObjectId const> ids) const;
  std::vector<ObjectId> Ids(ObjectId job) const;

 private:
  Store(Transaction& transaction, TablePtr table, TablePtr parts)
      : transaction_(&transaction), table_(std::move(table)), parts_(std::move(parts)) {}

  std::optional<Object> Find(ObjectId id) const;
  std::vector<Object> PartsOf(ObjectId job) const;

  Transaction* transaction_;
  TablePtr table_;
  TablePtr parts_;
};

}  // namespace sagleme::jobs

#endif
