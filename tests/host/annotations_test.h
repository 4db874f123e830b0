#ifndef SAGLEME_TESTS_HOST_ANNOTATIONS_TEST_H
#define SAGLEME_TESTS_HOST_ANNOTATIONS_TEST_H

// People, their children, and the things that they own.

#include <gtest/gtest.h>

#include <array>
#include <functional>
#include <sagleme/annotations.hpp>
#include <sagleme/check.hpp>
#include <sagleme/host.hpp>
#include <string>
#include <vector>

#include "new_database.h"

namespace sagleme {

// What a call throws; empty when it does not.
inline std::string Refused(std::uint32_t status, std::function<void()> const& work) {
  try {
    work();
  } catch (Error const& error) {
    EXPECT_EQ(status, error.status()) << error.what();
    return error.what();
  }
  ADD_FAILURE() << "nothing was refused";
  return "";
}

inline std::vector<std::string> FindingsOf(Transaction& transaction) {
  std::vector<std::string> findings;
  CheckCatalogue(transaction, {}, [&](Finding const& finding) {
    findings.push_back(finding.rule + ": " + finding.what);
  });
  return findings;
}

class AnnotationsTest : public testing::Test {
 protected:
  AnnotationsTest() {
    Transaction transaction(context_);
    std::array const person{ColumnSpec{u"Name"}, ColumnSpec{u"Age", Type::kLong, false},
                            ColumnSpec{u"City"}};
    std::array const thing{ColumnSpec{u"Owner", Type::kReference, true, u"Person"},
                           ColumnSpec{u"Next", Type::kReference, true, u"Thing"}};
    CreateTable(transaction, u"Person", u"", person);
    CreateTable(transaction, u"Child", u"Person", {{u"School"}});
    CreateTable(transaction, u"Thing", u"", thing);
    FinishReferences(transaction);
    CreateIndex(transaction, u"PersonByName", u"Person", {{u"Name"}});
    transaction.Commit();
  }

  static Object Make(Transaction& transaction, char16_t const* table) {
    return Object::Create(transaction, *transaction.table(table));
  }
  static Object MakeThing(Transaction& transaction, ObjectId owner) {
    Object made = Make(transaction, u"Thing");
    made.Set(u"Owner", owner);
    return made;
  }
  static bool Exists(Transaction& transaction, Object const& object) {
    return Object::Find(transaction, object.id()).has_value();
  }
  static void SetRule(Transaction& transaction, char16_t const* column, OnDelete rule) {
    SetOnDelete(transaction, *transaction.table(u"Thing"), column, rule);
  }
  void SetRule(char16_t const* column, OnDelete rule) {
    Transaction transaction(context_);
    SetRule(transaction, column, rule);
    transaction.Commit();
  }

  Database database_ = sagleme_test::NewDatabase();
  Context context_{database_};
};

}  // namespace sagleme

#endif
