#ifndef SAGLEME_SCHEMA_JOB_HPP
#define SAGLEME_SCHEMA_JOB_HPP

// Schema documents applied as jobs (<sagleme/jobs.hpp>): indexes over many objects are built, and
// values of changed columns written, beside writers first; then all changes are made in one
// transaction.
//
//   sagleme::SchemaDoc const wanted = sagleme::ParseSchema(text, "shop.json");
//   if (!sagleme::ApplySchema(context, wanted, options)) return;  // options.report ended it
//
// A job that was cut off keeps the document. ResumeJob compares it with the schema as it is then,
// so what is done already is not done again.

#include <sagleme/export.h>

#include <memory>
#include <sagleme/index_build.hpp>
#include <sagleme/jobs.hpp>
#include <sagleme/schema_document.hpp>
#include <sagleme/schema_plan.hpp>

namespace sagleme {

struct SchemaOptions {
  bool allow_losses = false;      // of values and objects; else Failure of kRefused
  std::uint64_t objects = 10000;  // in a table whose indexes are built beside writers
  std::uint32_t batch = 5000;     // objects in a transaction of a build
  std::chrono::milliseconds pause{0};
  JobControl const* control = nullptr;
  // Called after each batch with the steps of the job; false ends it there.
  std::function<bool(JobProgress const&)> report;
};

// Changes the schema to that of the document, whole or in part. Returns false if it was ended
// before the last transaction; indexes that are built stay prepared. Failure of kBadInput: no
// database can have this schema. Failure of kRefused: there are doubts (FindDoubts), or losses that
// are not allowed. Error: as ApplyPlan.
SAGLEME_HOST_API bool ApplySchema(Context const& context, SchemaDoc const& wanted,
                                  SchemaOptions const& options = {});

// The job alone, for programs that apply a plan themselves. It is cut off unless it is finished.
class SAGLEME_HOST_API SchemaJob {
 public:
  // Makes the job; `steps` of them are to be done. LSCOREDB_IN_USE: somebody applies the same
  // document.
  SchemaJob(Context const& context, SchemaDoc const& wanted, bool allow_losses,
            std::uint64_t steps);
  ~SchemaJob();
  SchemaJob(SchemaJob const&) = delete;
  SchemaJob& operator=(SchemaJob const&) = delete;

  // One more is done. No transaction is open.
  void Step();
  // In the transaction that does the last one.
  void Finish(Transaction& transaction);
  // Forgets the job, because it is refused.
  void Abandon();

 private:
  struct State;
  std::unique_ptr<State> state_;
};

}  // namespace sagleme

#endif
