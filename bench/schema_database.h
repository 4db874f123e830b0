#ifndef SAGLEME_BENCH_SCHEMA_DATABASE_H
#define SAGLEME_BENCH_SCHEMA_DATABASE_H

// A sagleme database whose schema is changed, through the exported functions.

#include <cstdint>
#include <memory>
#include <sagleme/host.hpp>
#include <string>
#include <vector>

#include "dataset.h"

namespace bench {

enum class Change { kCreateTable, kAddColumn, kCreateIndex, kRenameColumn, kDropColumn };
inline constexpr Change kChanges[] = {Change::kCreateTable, Change::kAddColumn,
                                      Change::kCreateIndex, Change::kRenameColumn,
                                      Change::kDropColumn};

// For people.
char const* NameOf(Change change);

class SchemaDatabase {
 public:
  static sagleme::Options OptionsOf(bool durable);
  static std::u16string TableName(unsigned number);

  // A new one in `directory`, in memory for an empty name.
  SchemaDatabase(std::string const& directory, bool durable);

  // Tables with the numbers from `first` on, each with so many columns of all kinds.
  void MakeTables(unsigned first, unsigned count, unsigned columns);
  // Objects in a table, all with the same values.
  void Fill(unsigned table, Number objects);
  // One table with five columns, in a transaction of its own.
  void MakeTable(std::u16string const& name);

  // Nanoseconds that a change takes, with the begin and commit of its transaction, as the median of
  // so many. Each is undone before the next, beside what is measured. Columns and indexes are those
  // of `table`.
  double Time(Change change, unsigned table, int times);

 private:
  template <typename Work>
  void InTransaction(Work&& work);
  double TimeOnce(Change change, std::u16string const& table);
  void CreateTable(std::u16string const& name, unsigned columns);

  sagleme::Database database_;
  std::unique_ptr<sagleme::Context> context_;
};

}  // namespace bench

#endif
