#ifndef SAGLEME_HOST_COLUMNS_COLUMN_JOB_H
#define SAGLEME_HOST_COLUMNS_COLUMN_JOB_H

// Prepares a change of columns in batches: hidden columns get the values of afterwards.

#include <functional>
#include <sagleme/column_changes.hpp>
#include <span>
#include <string>
#include <vector>

#include "columns/convert.h"
#include "jobs/run.h"

namespace sagleme::columns {

// What a change needs to be prepared.
struct Preparation {
  ColumnSpec spec;                      // of the column afterwards
  Wanted wanted;                        // the same
  std::vector<std::u16string> holders;  // tables that will declare it anew; none: nothing to do
};

// Throw what the change throws; they do not look at objects.
Preparation PreparationOfPullUp(Transaction& transaction, Text const& table, Text const& column,
                                Text const& base);
Preparation PreparationOfPushDown(Transaction& transaction, Text const& table, Text const& column,
                                  std::span<Text const> tables);
Preparation PreparationOfRetype(Transaction& transaction, Text const& table,
                                ColumnSpec const& column);

enum class Filled {
  kYes,
  kEnded,    // by the report
  kStopped,  // by the control of the job
};

class Job {
 public:
  using Prepare = std::function<Preparation(Transaction&)>;
  using Finish = std::function<void(Transaction&)>;

  // `prepare` also refuses what cannot be done, before anything is written. `run` records the job;
  // null: it is part of another one.
  Job(Context const& context, ColumnChangeOptions const& options, Prepare prepare,
      jobs::Run* run = nullptr)
      : context_(context), options_(options), prepare_(std::move(prepare)), run_(run) {}

  // Until so little is left that one transaction can take it along. What was written stays.
  Filled Fill();
  // Prepares and makes the change. False if it was ended or stopped. A change that is refused for
  // its values leaves nothing behind.
  bool Run(Finish const& finish);
  // Removes the hidden columns, and forgets the job.
  void Abandon();
  bool ended() const { return ended_; }

 private:
  void AddColumns(Transaction& transaction);
  Filled FillRound(std::vector<ObjectId> left);
  bool TryFinish(Finish const& finish, std::uint32_t attempt);
  std::vector<ObjectId> Collect() const;
  void Write(Transaction& transaction, std::span<ObjectId const> batch) const;
  bool Update(Transaction& transaction, Object& object, bool write) const;
  bool GoesOn() const;
  template <typename Work>
  void Attempt(Work&& work);

  Context const& context_;
  ColumnChangeOptions const& options_;
  Prepare prepare_;
  jobs::Run* run_;
  Preparation preparation_;
  ColumnChangeProgress progress_;
  bool ended_ = false;
};

}  // namespace sagleme::columns

#endif
