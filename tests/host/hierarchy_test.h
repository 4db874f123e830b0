#ifndef TESTS_HOST_HIERARCHY_TEST_H
#define TESTS_HOST_HIERARCHY_TEST_H

// A small tree of tables for changes of place in it, and what must hold after each.

#include <gtest/gtest.h>

#include <sagleme/check.hpp>
#include <sagleme/hierarchy.hpp>
#include <sagleme/vacuum.hpp>
#include <string>
#include <vector>

#include "new_database.h"
#include "status_of.h"

namespace hierarchy_test {

using sagleme::Object;
using sagleme::ObjectId;
using sagleme::Referring;
using sagleme::Transaction;
using sagleme::Type;
using sagleme::Value;

using Ids = std::vector<ObjectId>;

// Item (Title) <- Book (Pages) <- Novel (Genre), Item <- Film (Length, Pages), Place (Name, City),
// Loan (Item -> Item, Book -> Book).
class HierarchyTest : public ::testing::Test {
 protected:
  HierarchyTest() : database_(sagleme_test::NewDatabase()), context_(database_) {
    Transaction transaction(context_);
    sagleme::CreateTable(transaction, u"Item", u"", {{u"Title", Type::kString}});
    sagleme::CreateTable(transaction, u"Book", u"Item", {{u"Pages", Type::kLong, true}});
    sagleme::CreateTable(transaction, u"Novel", u"Book", {{u"Genre", Type::kString}});
    sagleme::CreateTable(transaction, u"Film", u"Item",
                         {{u"Length", Type::kLong, true}, {u"Pages", Type::kLong, true}});
    sagleme::CreateTable(transaction, u"Place", u"",
                         {{u"Name", Type::kString}, {u"City", Type::kString}});
    sagleme::CreateTable(
        transaction, u"Loan", u"",
        {{u"Item", Type::kReference, true, u"Item"}, {u"Book", Type::kReference, true, u"Book"}});
    sagleme::CreateIndex(transaction, u"ItemByTitle", u"Item", {{u"Title"}});
    sagleme::CreateIndex(transaction, u"BookByPages", u"Book", {{u"Pages"}, {u"Title"}});
    sagleme::CreateIndex(transaction, u"NovelByTitle", u"Novel", {{u"Title", false}});
    transaction.Commit();
  }
  void TearDown() override { ExpectSound(); }

  static Object Make(Transaction& transaction, std::u16string const& table,
                     std::vector<std::pair<std::u16string, Value>> const& values) {
    Object object = Object::Create(transaction, *transaction.table(table));
    for (auto const& [column, value] : values) object.Set(column, value);
    return object;
  }
  static Value Get(Transaction& transaction, ObjectId id, std::u16string const& column) {
    return Object::Find(transaction, id)->Get(column);
  }
  static std::u16string TableOf(Transaction& transaction, ObjectId id) {
    return Object::Find(transaction, id)->table()->name;
  }
  static Ids Subtree(Transaction& transaction, std::u16string const& table) {
    Ids ids;
    for (Object& each : sagleme::Range::Subtree(transaction, *transaction.table(table))) {
      ids.push_back(each.id());
    }
    return ids;
  }
  static Ids InIndex(Transaction& transaction, std::u16string const& index,
                     std::vector<Value> const& key = {}) {
    Ids ids;
    for (Object& each : sagleme::Range::Matching(transaction, *transaction.FindIndex(index), key)) {
      ids.push_back(each.id());
    }
    return ids;
  }
  static void ExpectSound(Transaction& transaction) {
    sagleme::CheckCatalogue(transaction, {}, [](sagleme::Finding const& finding) {
      ADD_FAILURE() << finding.rule << " " << finding.table << " " << finding.object << ": "
                    << finding.what;
    });
  }
  // Catalogue and kernel agree, as committed.
  void ExpectSound() {
    {
      Transaction transaction(context_, sagleme::Access::kReadOnly);
      ExpectSound(transaction);
    }
    EXPECT_EQ(0u, lscoredb_check(database_.handle(), 0, nullptr, nullptr));
  }

  sagleme::Database database_;
  sagleme::Context context_;
};

// The text of the refusal; empty if there is none.
template <typename Work>
std::string RefusalOf(Work&& work) {
  try {
    std::forward<Work>(work)();
  } catch (sagleme::Failure const& failure) {
    EXPECT_EQ(sagleme::Failure::Kind::kRefused, failure.kind());
    return failure.what();
  }
  return "";
}

}  // namespace hierarchy_test

#endif
