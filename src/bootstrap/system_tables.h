#ifndef BOOTSTRAP_SYSTEM_TABLES_H
#define BOOTSTRAP_SYSTEM_TABLES_H

// One run that brings a database to the definition of its system tables.
//
// New, current, older and partly created databases take the same path: each step checks whether its
// result exists, creates what is missing, and compares what it finds. Control returns to the host
// after each batch of changes, and the host may commit there.
//
// Lives on the stack of one bootstrap call, while a MetaschemaInit is in force.

#include <sagleme/metalayer/metaschema.hpp>
#include <span>

namespace metalayer {

// Where a step ends: 0 asks the host to resume.
using StepSink = boost::coroutines::push_coroutine<unsigned int>;

class SystemTables {
 public:
  explicit SystemTables(StepSink& sink);

  void CreateAndVerify();

 private:
  void Yield();

  // The stages, in order. Tokens can be allocated by name only once the dictionary exists, and set
  // specifiers only once their table does, hence the first three.
  void PrepareRoot();
  void PrepareDictionary();
  void PrepareSetSpecifiers();
  void FindWhatExists();
  void PrepareViewsAndTypeIds();
  void PrepareOtherTables();
  void WriteRows();
  void RepairOldIndexes();

  // Of the dictionary and the set specifiers.
  void InsertPredefinedTokens();
  void CreateSetSpecifierIndexes();
  void VerifySetSpecifierIndexes();

  // Of what exists.
  void RefuseNewerDatabase();
  void FindSetspecs();
  void FindTypeIds();

  // Of the other tables.
  void ReserveTypeIds();
  void GiveTypeIds();
  void CreateOtherIndexes();
  void ReadyClasses();

  // Of the rows.
  void DescribeTables();
  void GiveTypeIdsToUserTables();
  void WriteVersion();

  // Of the repair.
  void DropOldSpecifierIndex();
  void DropOldPrimitiveTypeIndexes();
  void RecordSpecifierIndex();

  std::span<TABLE_INFO> const tables_;
  std::span<TABLE_INFO> const loop_tables_;
  TABLE_INFO& root_;
  TABLE_INFO& token_;
  TABLE_INFO& set_specifier_;
  TABLE_INFO& raw_view_;
  TABLE_INFO& type_ids_;
  StepSink& sink_;
  // The database was whole once: what it lacks now is damage, not an interrupted run.
  bool has_version_ = false;
};

// Runs the Init of a table's class.
unsigned short ReadyClass(TABLE_INFO const& table, unsigned long type_id);

// The declared index of that name.
INDEX_INFO& DeclaredIndex(TABLE_INFO& table, char16_t const* name);

// The index over the texts of set specifiers. Older databases hold a unique one.
inline constexpr char16_t const* kSpecifierIndex = u"TypeId";

}  // namespace metalayer

#endif
