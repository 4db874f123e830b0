#ifndef SAGLEME_HOST_HPP
#define SAGLEME_HOST_HPP

// The library for hosts written in C++, over the C interface and the exported C++. Most of it is in
// headers; what annotations ask of writes is in libsaglemehost.
//
//   sagleme::Database database = sagleme::Database::Open("packages");
//   sagleme::Context context(database);
//   sagleme::Transaction transaction(context);
//   sagleme::TablePtr package = transaction.table(u"App.Package");
//   sagleme::Property<std::u16string> name(*package, u"Name");
//   for (sagleme::Object& each : sagleme::Range::Subtree(transaction, *package)) {
//     std::cout << sagleme::ToUtf8(name.GetOr(each, u"?")) << "\n";
//   }
//
// Rules
//
//  1. A process uses any number of databases, each with many contexts; a context has one
//     transaction at a time, and is used by one thread at a time. Threads may use different
//     databases at the same time, also to create and open them.
//  2. Tables, columns and indexes are values as the transaction found them, valid in that database
//     until it is closed. Objects and ranges belong to their transaction and end with it. Views of
//     texts end with the innermost read scope.
//  3. Every failure is a sagleme::Error with status and text. A call that fails changes nothing,
//     except that a schema change may be partly done: a Savepoint around the change, or the
//     rollback of the transaction, undoes it.
//  4. Texts are UTF-16 inside; ToUtf8 and ToUtf16 convert.

#include <sagleme/cxx20.hpp>
#include <sagleme/host/database.hpp>
#include <sagleme/host/errors.hpp>
#include <sagleme/host/object.hpp>
#include <sagleme/host/range.hpp>
#include <sagleme/host/savepoint.hpp>
#include <sagleme/host/schema.hpp>
#include <sagleme/host/table.hpp>
#include <sagleme/host/text.hpp>
#include <sagleme/host/transaction.hpp>
#include <sagleme/host/value.hpp>

#endif
