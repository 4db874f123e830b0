// What the host library adds to the kernel's calls when objects are made, changed and deleted: it
// looks for annotations, of which there are none, or only of other tables.

#include <optional>
#include <sagleme/annotations.hpp>
#include <sagleme/host.hpp>
#include <vector>

#include "sections.h"
#include "turns.h"

namespace bench {
namespace {

// A turn is short pieces, of which the quickest counts: what disturbs it only adds to it.
constexpr int kPieces = 10;
constexpr int kObjects = 2000;  // in a piece, which is a transaction that is rolled back

void Check(std::uint32_t status) { sagleme::detail::CheckKernel(status); }

// Another table with a default, an abstract base and a reference under a rule.
void AnnotateOthers(sagleme::Transaction& transaction) {
  sagleme::CreateTable(transaction, u"Bench.Base", u"", {{u"Name"}});
  sagleme::CreateTable(transaction, u"Bench.Other", u"Bench.Base",
                       {{u"Number", sagleme::Type::kLong, true},
                        {u"Next", sagleme::Type::kReference, true, u"Bench.Base"}});
  auto const other = transaction.table(u"Bench.Other");
  sagleme::SetAbstract(transaction, *transaction.table(u"Bench.Base"), true);
  sagleme::SetDefault(transaction, *other, u"Number", std::int64_t{1});
  sagleme::SetOnDelete(transaction, *other, u"Next", sagleme::OnDelete::kCascade);
}

// Each function gives the nanoseconds for an object.
class Writes {
 public:
  Writes(sagleme::Context const& context, bool annotated) : context_(context) {
    sagleme::Transaction transaction(context);
    sagleme::CreateTable(transaction, u"Bench.Written", u"",
                         {{u"Value", sagleme::Type::kLong, true}});
    if (annotated) AnnotateOthers(transaction);
    table_ = transaction.table(u"Bench.Written");
    column_ = table_->GetColumn(u"Value").ordinal;
    for (int i = 0; i < kObjects; ++i) {
      objects_.push_back(sagleme::Object::Create(transaction, *table_).id());
    }
    transaction.Commit();
  }

  double Make() const {
    return Best([this](sagleme::Transaction& transaction) {
      sagleme::Property<std::int64_t> const value(*table_, u"Value");
      for (std::int64_t i = 0; i < kObjects; ++i) {
        value.Set(sagleme::Object::Create(transaction, *table_), i);
      }
    });
  }
  double MakeByKernel() const {
    return Best([this](sagleme::Transaction const& transaction) {
      std::uint64_t const context = transaction.context();
      for (std::int64_t i = 0; i < kObjects; ++i) {
        std::uint64_t oid = 0;
        Check(lorv_context_insert(context, table_->layout, &oid));
        Check(lorv_context_put_setspec(context, oid, table_->layout, table_->setspec.c_str()));
        Check(lorv_context_put_long(context, oid, table_->layout, column_, i));
      }
    });
  }
  double Change() const {
    return Best([this](sagleme::Transaction& transaction) {
      sagleme::Property<std::int64_t> const value(*table_, u"Value");
      std::int64_t number = 0;
      for (sagleme::ObjectId const id : objects_) {
        value.Set(*sagleme::Object::Find(transaction, id), ++number);
      }
    });
  }
  double ChangeByKernel() const {
    return Best([this](sagleme::Transaction const& transaction) {
      std::int64_t number = 0;
      for (sagleme::ObjectId const id : objects_) {
        std::uint64_t const addr = Found(transaction, id) & ~std::uint64_t{0xFFFF};
        Check(lorv_context_put_long(transaction.context(), id.value, addr | table_->layout, column_,
                                    ++number));
      }
    });
  }
  double Delete() const {
    return Best([this](sagleme::Transaction& transaction) {
      for (sagleme::ObjectId const id : objects_) sagleme::Object::Find(transaction, id)->Delete();
    });
  }
  double DeleteByKernel() const {
    return Best([this](sagleme::Transaction const& transaction) {
      for (sagleme::ObjectId const id : objects_) {
        Check(lorv_context_delete(transaction.context(), id.value, Found(transaction, id)));
      }
    });
  }

 private:
  static std::uint64_t Found(sagleme::Transaction const& transaction, sagleme::ObjectId id) {
    std::uint64_t addr = 0;
    Check(lorv_context_lookup(transaction.context(), id.value, &addr));
    return addr;
  }
  template <typename Work>
  double Best(Work&& work) const {
    double best = 0;
    for (int piece = 0; piece < kPieces; ++piece) {
      sagleme::Transaction transaction(context_);
      double const time = Nanoseconds([&] { work(transaction); });
      if (piece == 0 || time < best) best = time;
    }
    return best / kObjects;
  }

  sagleme::Context const& context_;
  sagleme::TablePtr table_;
  std::uint32_t column_ = 0;
  std::vector<sagleme::ObjectId> objects_;
};

struct Kind {
  char const* name;
  double (Writes::*own)() const;
  double (Writes::*kernel)() const;
};
constexpr Kind kKinds[] = {{"make", &Writes::Make, &Writes::MakeByKernel},
                           {"change", &Writes::Change, &Writes::ChangeByKernel},
                           {"delete", &Writes::Delete, &Writes::DeleteByKernel}};

}  // namespace

std::vector<Result> MeasureHostWrites(Settings const& settings) {
  std::vector<Result> results;
  for (bool const annotated : {false, true}) {
    sagleme::Database const database = sagleme::Database::InMemory();
    sagleme::Context const context(database);
    Writes const writes(context, annotated);
    for (Kind const& kind : kKinds) {
      std::string const work = std::string(kind.name) + " an object by the host library, " +
                               (annotated ? "with annotations of other tables" : "no annotations");
      Result result = MakeComparison(work, "ns", "kernel", 1.05);
      for (int round = 0; round < settings.rounds; ++round) {
        MeasureRound(
            result, [&] { return (writes.*kind.own)(); }, [&] { return (writes.*kind.kernel)(); });
      }
      results.push_back(std::move(result));
    }
  }
  return results;
}

}  // namespace bench
