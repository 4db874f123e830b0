// Changes of many objects' table in batches: what others write between the batches.

#include <sagleme/column_changes.hpp>
#include <sagleme/failure.hpp>

#include "hierarchy_test.h"

namespace hierarchy_test {
namespace {

using sagleme::Failure;
using sagleme::JobOptions;
using sagleme::Jobs;
using sagleme::Loss;
using sagleme::ResumeJob;
using sagleme::RetypeOptions;

constexpr std::size_t kBooks = 50;

class RetypeJobsTest : public HierarchyTest {
 protected:
  RetypeJobsTest() : other_(database_) {
    Transaction transaction(context_);
    for (std::size_t i = 0; i < kBooks; ++i) {
      std::u16string const title = u"t" + sagleme::ToUtf16(std::to_string(i));
      books_.push_back(Make(transaction, u"Book", {{u"Title", title}}).id());
    }
    transaction.Commit();
  }

  // In batches of 10, with `between` after each.
  std::uint64_t ToFilms(RetypeOptions const& options,
                        std::function<void(std::uint64_t done)> between) {
    sagleme::RetypeJob job;
    job.batch = 10;
    job.report = [&](std::uint64_t done, std::uint64_t) {
      between(done);
      return true;
    };
    return sagleme::RetypeInBatches(context_, books_, u"Film", options, job);
  }
  // The same, and what ends it.
  std::string EndOf(RetypeOptions const& options,
                    std::function<void(std::uint64_t done)> const& between) {
    return RefusalOf([&] { ToFilms(options, between); });
  }
  template <typename Work>
  void Write(Work&& work) {
    Transaction transaction(other_);
    work(transaction);
    transaction.Commit();
  }
  void SetPages(std::size_t book, Value const& pages) {
    Write([&](Transaction& transaction) {
      Object::Find(transaction, books_[book])->Set(u"Pages", pages);
    });
  }
  ObjectId Lend(std::size_t book) {
    ObjectId loan;
    Write([&](Transaction& transaction) {
      loan = Make(transaction, u"Loan", {{u"Book", books_[book]}}).id();
    });
    return loan;
  }
  std::string NameOf(std::size_t book) { return "object " + std::to_string(books_[book].value); }
  std::uint64_t JobId() { return Jobs(context_).at(0).id; }
  // The first so many are films, the others books.
  void ExpectFilms(std::size_t films) {
    Transaction transaction(context_, sagleme::Access::kReadOnly);
    for (std::size_t i = 0; i < kBooks; ++i) {
      EXPECT_EQ(i < films ? u"Film" : u"Book", TableOf(transaction, books_[i])) << i;
    }
  }

  sagleme::Context other_;
  Ids books_;
  RetypeOptions const without_loss_{.loss = Loss::kRefuse};
};

TEST_F(RetypeJobsTest, ValueThatWouldBeLost_StopsItUntilItIsCleared) {
  std::string const end = EndOf(without_loss_, [&](std::uint64_t done) {
    if (done == 20) SetPages(31, 7L);
    if (done == 20) SetPages(36, 8L);
  });
  EXPECT_EQ("values would be lost if the objects became objects of Film: " + NameOf(31) +
                " has a value in column Pages of Book;\n  " + NameOf(36) +
                " has a value in column Pages of Book",
            end);
  ExpectFilms(30);
  EXPECT_EQ(end, Jobs(context_).at(0).reason);
  SetPages(31, sagleme::Null{});
  EXPECT_THROW(ResumeJob(context_, JobId()), Failure);
  ExpectFilms(30);
  SetPages(36, sagleme::Null{});
  EXPECT_TRUE(ResumeJob(context_, JobId()));
  ExpectFilms(kBooks);
  EXPECT_TRUE(Jobs(context_).empty());
}

TEST_F(RetypeJobsTest, ValueThatMayBeLost_StopsNothing) {
  auto const write = [&](std::uint64_t done) {
    if (done == 20) SetPages(45, 7L);
  };
  EXPECT_NE("", EndOf(without_loss_, write));
  ExpectFilms(40);
  JobOptions options;
  options.allow_losses = true;
  EXPECT_TRUE(ResumeJob(context_, JobId(), options));
  ExpectFilms(kBooks);
}

TEST_F(RetypeJobsTest, LossThatWasAllowed_StaysAllowed) {
  SetPages(35, 7L);
  sagleme::RetypeJob job;
  job.batch = 10;
  job.report = [](std::uint64_t done, std::uint64_t) { return done < 20; };
  EXPECT_EQ(20u, sagleme::RetypeInBatches(context_, books_, u"Film", {}, job));
  EXPECT_TRUE(ResumeJob(context_, JobId()));
  ExpectFilms(kBooks);
}

TEST_F(RetypeJobsTest, ManyValues_AreListedInPart) {
  for (std::size_t i = 0; i < 25; ++i) SetPages(i, 1L);
  Transaction transaction(context_);
  std::string const text = RefusalOf(
      [&] { sagleme::Retype(transaction, books_, *transaction.table(u"Film"), without_loss_); });
  EXPECT_NE(std::string::npos, text.find(NameOf(19) + " has a value")) << text;
  EXPECT_EQ(std::string::npos, text.find(NameOf(20) + " has a value")) << text;
  EXPECT_TRUE(text.ends_with(";\n  and 5 more values")) << text;
  EXPECT_EQ(Ids{}, Subtree(transaction, u"Film"));
  sagleme::Retype(transaction, books_, *transaction.table(u"Film"),
                  {.by_name = true, .loss = Loss::kRefuse});
  EXPECT_EQ(Value(1L), Get(transaction, books_[0], u"Pages"));
}

// The table of the references was read for the first batch.
TEST_F(RetypeJobsTest, ReferenceThatMayNotLeadThere_StopsItUntilItIsGone) {
  ObjectId loan;
  std::string const end = EndOf(without_loss_, [&](std::uint64_t done) {
    if (done == 20) loan = Lend(41);
  });
  EXPECT_NE(std::string::npos,
            end.find("object " + std::to_string(loan.value) + " refers to " + NameOf(41)))
      << end;
  ExpectFilms(40);
  EXPECT_THROW(ResumeJob(context_, JobId()), Failure);
  Write([&](Transaction& transaction) { Object::Find(transaction, loan)->Delete(); });
  EXPECT_TRUE(ResumeJob(context_, JobId()));
  ExpectFilms(kBooks);
}

TEST_F(RetypeJobsTest, ReferencesToSetToNull_AreAllFound) {
  Ids loans;
  for (std::size_t const book : {0, 9, 10, 10, 49}) loans.push_back(Lend(book));
  ToFilms({.referring = Referring::kSetNull}, [&](std::uint64_t done) {
    if (done == kBooks) return;
    loans.push_back(Lend(done));
    loans.push_back(Lend(kBooks - 1));
    Write([&](Transaction& transaction) {  // one that leads elsewhere now
      Object::Find(transaction, loans[1])->Set(u"Book", books_[kBooks - 2]);
    });
  });
  ExpectFilms(kBooks);
  Transaction transaction(context_, sagleme::Access::kReadOnly);
  for (ObjectId const loan : loans) {
    EXPECT_EQ(Value(sagleme::Null{}), Get(transaction, loan, u"Book"));
  }
}

TEST_F(RetypeJobsTest, ReferencesOfOtherTables_AreFoundInWhateverPlace) {
  auto const end = EndOf({}, [&](std::uint64_t done) {
    Write([&](Transaction& transaction) {
      if (done == 10) sagleme::SetBase(transaction, u"Loan", u"Place");
      if (done == 20) Make(transaction, u"Loan", {{u"Item", books_[45]}});  // allows films
      if (done != 30) return;
      sagleme::CreateTable(transaction, u"Shelf", u"",
                           {{u"First", Type::kReference, true, u"Book"}});
      Make(transaction, u"Shelf", {{u"First", books_[49]}});
    });
  });
  EXPECT_NE(std::string::npos, end.find("refers to " + NameOf(49) + " by First of Shelf")) << end;
  ExpectFilms(40);
}

// The table that is read is the one whose objects leave.
TEST_F(RetypeJobsTest, ReferencesAmongTheObjects_AreFound) {
  Write([&](Transaction& transaction) {
    sagleme::AddColumns(transaction, u"Item", {{u"Sequel", Type::kReference, true, u"Book"}});
    Object::Find(transaction, books_[3])->Set(u"Sequel", books_[44]);
  });
  EXPECT_NE(std::string::npos,
            EndOf({}, [](std::uint64_t) {}).find(NameOf(3) + " refers to " + NameOf(44)));
  ExpectFilms(40);
  Write([&](Transaction& transaction) {
    Object::Find(transaction, books_[3])->Set(u"Sequel", sagleme::Null{});
  });
  EXPECT_TRUE(ResumeJob(context_, JobId()));
  ExpectFilms(kBooks);
}

TEST_F(RetypeJobsTest, KeyThatIsTaken_StopsItUntilItIsFree) {
  Write([&](Transaction& transaction) {
    sagleme::CreateIndex(transaction, u"FilmByTitle", u"Film", {{u"Title"}},
                         sagleme::Uniqueness::kUnique);
  });
  ObjectId film;
  EXPECT_EQ(LSCOREDB_DUPLICATE_KEY, StatusOf([&] {
              ToFilms({}, [&](std::uint64_t done) {
                if (done != 20) return;
                Write([&](Transaction& transaction) {
                  film = Make(transaction, u"Film", {{u"Title", u"t35"}}).id();
                });
              });
            }));
  ExpectFilms(30);
  Write([&](Transaction& transaction) { Object::Find(transaction, film)->Delete(); });
  EXPECT_TRUE(ResumeJob(context_, JobId()));
  ExpectFilms(kBooks);
}

// Changes of columns look at the last moment, and leave nothing when they are refused.
TEST_F(RetypeJobsTest, ColumnChange_RefusesValuesOfMeanwhile) {
  sagleme::ColumnChangeOptions options;
  options.batch = 10;
  auto const at_20 = [&](std::function<void()> const& work) {
    options.report = [&, work](sagleme::ColumnChangeProgress const& progress) {
      if (progress.done == 20) work();
      return true;
    };
  };
  Write([&](Transaction& transaction) {
    for (ObjectId const book : books_) Object::Find(transaction, book)->Set(u"Title", u"7");
  });
  at_20([&] {
    Write([&](Transaction& transaction) {
      Object::Find(transaction, books_[2])->Set(u"Title", u"no number");
    });
  });
  EXPECT_EQ(LSCOREDB_WRONG_TYPE, StatusOf([&] {
              sagleme::RunChangeColumnType(context_, u"Item", {u"Title", Type::kLong}, options);
            }));
  at_20([&] {
    Write([&](Transaction& transaction) { Make(transaction, u"Item", {{u"Title", u"lost"}}); });
  });
  std::vector<sagleme::Text> const down{u"Film", u"Book"};
  EXPECT_EQ(LSCOREDB_WRONG_TYPE, StatusOf([&] {
              sagleme::RunPushDownColumn(context_, u"Item", u"Title", down, options);
            }));
  EXPECT_TRUE(Jobs(context_).empty());
  Transaction transaction(context_, sagleme::Access::kReadOnly);
  EXPECT_EQ(Value(u"no number"), Get(transaction, books_[2], u"Title"));
  EXPECT_EQ(nullptr, transaction.table(u"Book")->FindColumn(u"__next_Title"));
}

}  // namespace
}  // namespace hierarchy_test
