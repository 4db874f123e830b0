#ifndef SAGLEME_TESTS_SUPPORT_CATALOGUE_DEFINITION_H
#define SAGLEME_TESTS_SUPPORT_CATALOGUE_DEFINITION_H

// What the 25 system tables are to be, written down once more and by hand for the tests, and what a
// database says of itself, in the same words.

#include <string>
#include <vector>

namespace sagleme_test {

struct DefinedColumn {
  int ordinal;
  std::string name;
  int type;            // logical
  std::string target;  // short name of the referenced table, empty for other types
  unsigned long token;
  bool inherited;
};

struct DefinedIndex {
  std::string name;
  bool unique;
  unsigned long token;
  std::vector<std::string> columns;
};

struct DefinedTable {
  std::string name;
  std::string base;  // empty at the root
  std::string full_name;
  unsigned long token;
  unsigned long type_id;  // the predefined one, or 0
  std::string setspec;    // in a new database
  std::vector<DefinedColumn> columns;
  std::vector<DefinedIndex> indexes;

  std::vector<DefinedColumn> OwnColumns() const;
};

std::vector<DefinedTable> const& DefinedTables();
DefinedTable const& Defined(std::string const& name);
// In a new database: the predefined one, or the next free number in table order.
unsigned long NewTypeId(std::string const& table);

// The catalogue of a new database, and of the one in the thread's context: one line for each row,
// layout and index of the kernel, sorted. References are shown by the names of what they refer to,
// so that equivalent databases have the same lines.
std::vector<std::string> ExpectedCatalogue();
std::vector<std::string> DescribeCatalogue();

// Every object of the database in the thread's context with its identity and all of its columns.
std::vector<std::string> DumpObjects();

// The lines that only one of the two has, marked by which; empty when both are equal.
std::string Differences(std::vector<std::string> const& expected,
                        std::vector<std::string> const& found);

}  // namespace sagleme_test

#endif
