#ifndef SAGLEME_TESTS_MODEL_GENERATOR_H
#define SAGLEME_TESTS_MODEL_GENERATOR_H

// Draws operations. A draw depends on the seed, on the draws before it and on the model alone, so a
// run can be repeated without a database.
//
// Most operations are such that they succeed; a good part of the rest fails by the names that they
// happen to draw, and some are made to fail. None is drawn that ends the process.

#include <random>

#include "model/operations.h"

namespace sagleme_model {

class Generator {
 public:
  explicit Generator(std::uint64_t seed) : random_(seed) {}

  Operation Draw(Model const& model);
  // True in `percent` of a hundred cases.
  bool Chance(unsigned percent) { return Below(100) < percent; }

 private:
  std::size_t Below(std::size_t count) { return static_cast<std::size_t>(random_() % count); }
  template <typename T>
  T const& OneOf(std::vector<T> const& choices) {
    return choices[Below(choices.size())];
  }

  Operation DrawSchemaChange(Model const& model);
  Operation DrawDrop(Model const& model);
  Operation DrawObjectOperation(Model const& model);

  Operation DrawCreateTable(Model const& model);
  Operation DrawAddColumns(Model const& model);
  Operation DrawDropColumn(Model const& model);
  Operation DrawRename(Model const& model);
  Operation DrawCreateIndex(Model const& model);
  Operation DrawDropIndex(Model const& model);
  Operation DrawMapping(Model const& model);
  Operation DrawCreateObject(Model const& model);
  Operation DrawWrite(Model const& model);

  Text NewName();
  Text AnyTable(Model const& model);  // rarely one that does not exist
  Text Shortened(Text const& full_name);
  Text ColumnName();
  Text ColumnOf(Model const& model, Text const& table, bool own);
  ColumnDef DrawColumn(Model const& model, bool by_refs);
  std::vector<ColumnDef> DrawColumns(Model const& model, std::size_t most, bool by_refs);
  std::vector<ColumnDef> SameColumns(Model const& model, Table const& table, bool by_refs);
  std::vector<IndexPart> DrawParts(Table const& table, bool unique);
  Value DrawValue(Model const& model, std::uint8_t type);

  std::mt19937_64 random_;
};

}  // namespace sagleme_model

#endif
