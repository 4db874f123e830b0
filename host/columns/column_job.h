#ifndef SAGLEME_HOST_COLUMNS_COLUMN_JOB_H
#define SAGLEME_HOST_COLUMNS_COLUMN_JOB_H

// Prepares a change of columns in batches: hidden columns get the values of afterwards.

#include <functional>
#include <sagleme/column_changes.hpp>
#include <span>
#include <string>
#include <vector>

#include "columns/convert.h"

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

class Job {
 public:
  using Prepare = std::function<Preparation(Transaction&)>;
  using Finish = std::function<void(Transaction&)>;

  // `prepare` also refuses what cannot be done, before anything is written.
  Job(Context const& context, ColumnChangeOptions const& options, Prepare prepare)
      : context_(context), options_(options), prepare_(std::move(prepare)) {}

  // Until so little is left that one transaction can take it along. False if `report` ended it;
  // what was written stays.
  bool Fill();
  // Prepares and makes the change, or abandons it and returns false. A change that is refused for
  // its values leaves nothing behind.
  bool Run(Finish const& finish);
  // Removes the hidden columns.
  void Abandon();

 private:
  void AddColumns(Transaction& transaction);
  bool FillRound(std::vector<ObjectId> left);
  bool TryFinish(Finish const& finish, std::uint32_t attempt);
  std::vector<ObjectId> Collect() const;
  void Write(Transaction& transaction, std::span<ObjectId const> batch) const;
  bool Update(Transaction& transaction, Object& object, bool write) const;
  template <typename Work>
  void Attempt(Work&& work);

  Context const& context_;
  ColumnChangeOptions const& options_;
  Prepare prepare_;
  Preparation preparation_;
  ColumnChangeProgress progress_;
};

}  // namespace sagleme::columns

#endif
