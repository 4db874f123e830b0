#ifndef SAGLEME_TESTS_MODEL_EXPECT_H
#define SAGLEME_TESTS_MODEL_EXPECT_H

// One function for each operation: what it does to the model. Throws Failure, with the model in any
// state.

#include <lscoredb/host.h>
#include <sagleme/statuses.h>

#include "model/operations.h"

namespace sagleme_model {

void Apply(Model& model, CreateTable const& operation);
void Apply(Model& model, AddColumns const& operation);
void Apply(Model& model, DropColumn const& operation);
void Apply(Model& model, RenameColumn const& operation);
void Apply(Model& model, RenameTable const& operation);
void Apply(Model& model, DropTable const& operation);
void Apply(Model& model, DropTables const& operation);
void Apply(Model& model, DropTableCascade const& operation);
void Apply(Model& model, CreateIndex const& operation);
void Apply(Model& model, DropIndex const& operation);
void Apply(Model& model, UpdateReferences const& operation);
void Apply(Model& model, CleanClasses const& operation);
void Apply(Model& model, MapClass const& operation);
void Apply(Model& model, MapColumn const& operation);
void Apply(Model& model, WriteValue const& operation);
void Apply(Model& model, WriteDefault const& operation);
void Apply(Model& model, DeleteObject const& operation);
void Apply(Model& model, AskProperty const& operation);
Uid Apply(Model& model, CreateObject const& operation);

// ---- shared by them
inline constexpr std::uint32_t kBadArgument = SAGLEME_BAD_ARGUMENT;
inline constexpr std::uint32_t kDuplicateKey = LSCOREDB_DUPLICATE_KEY;

inline constexpr std::size_t kMaxDefinitions = 112;
inline constexpr std::size_t kMaxColumns = 115;

void CheckArgument(Text const& value, Text const& name);
[[noreturn]] void ThrowTooManyColumns(Text const& table);
// By its full name; SAGLEME_TABLE_NOT_FOUND.
Table& ExistingTable(Model& model, Text const& name);
// One more column row, behind the last one of the table.
void PopulateColumn(Model& model, Table& table, ColumnDef const& definition, bool strict);
// The name is not taken; what the catalogue's unique indexes would say.
void CheckColumnNameIsFree(Table const& table, Text const& name);
void CheckReversedUidIsFree(Model const& model, Text const& full_name, Uid except);
// All types of a table's own columns can be read, but for the column that is passed over.
void CheckOwnTypes(Model const& model, Table const& table, Uid except_declared = 0);
// SAGLEME_TABLE_REFERENCED when a class maps the table.
void CheckNoClass(Model const& model, Table const& table);
void RemoveIndex(Model& model, Uid index);

Text Decimal(std::uint64_t number);

}  // namespace sagleme_model

#endif
