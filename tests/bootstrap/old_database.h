#ifndef SAGLEME_TESTS_BOOTSTRAP_OLD_DATABASE_H
#define SAGLEME_TESTS_BOOTSTRAP_OLD_DATABASE_H

// Turns a current database back into what older versions left behind, or into what no version ever
// wrote. Everything works in the thread's context and transaction.

#include <sagleme/metalayer.hpp>

namespace sagleme_test {

// The row of the catalogue's version, null for none.
metalayer::Configuration VersionRow();
void SetVersion(long version);
// The kernel's id of the only index with that name.
unsigned long KernelIndex(char16_t const* name);
// Drops the kernel's index and leaves the rows.
void DropKernelIndex(char16_t const* name);
// Deletes the rows of an index and leaves the kernel's.
void DeleteIndexRows(char16_t const* name);
// Makes a kernel index of one column.
unsigned long CreateKernelIndex(char16_t const* name, char16_t const* setspec,
                                char16_t const* column, uint8_t type, uint32_t flags);
// The index over the texts of set specifiers as older versions made it: unique.
unsigned long MakeSpecifierIndexUnique();
// The RawView row of a table by its full name.
metalayer::RawView TableRow(char16_t const* full_name);
// Every object of the table is deleted; the number of them.
int DeleteObjects(std::u16string const& setspec);

}  // namespace sagleme_test

#endif
