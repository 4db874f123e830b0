#include "annotations/store.h"

#include <array>
#include <random>

namespace sagleme::annotations {
namespace {

constexpr char16_t kTable[] = u"Sagleme.Internal.Annotation";
constexpr char16_t kIndex[] = u"Sagleme.Internal.AnnotationBySubject";

std::uint64_t NewVersion() {
  std::random_device random;
  return (std::uint64_t{random()} << 32) | random();
}

std::uint64_t NumberOf(Annotation::Kind kind) { return static_cast<std::uint64_t>(kind); }

}  // namespace

std::optional<Store> Store::Find(Transaction& transaction) {
  TablePtr const table = transaction.Find(kTable);
  if (table == nullptr) return std::nullopt;
  auto const index = transaction.FindIndex(kIndex);
  if (!index) return std::nullopt;  // it is being made
  Store store(transaction, table, *index);
  store.ReadVersion();
  return store;
}

Store Store::Make(Transaction& transaction) {
  if (auto const found = Find(transaction)) return *found;
  std::array const columns{ColumnSpec{u"Subject", Type::kULong, false},
                           ColumnSpec{u"Kind", Type::kULong, false}, ColumnSpec{u"Text"},
                           ColumnSpec{u"Version", Type::kULong, true}};
  CreateTable(transaction, kTable, u"", columns);
  CreateIndex(transaction, kIndex, kTable, {{u"Subject"}, {u"Kind"}}, Uniqueness::kUnique);
  Store made = *Find(transaction);
  made.Touch();
  return *Find(transaction);
}

std::optional<Object> Store::Row(ObjectId subject, std::uint64_t kind) const {
  return Range::Matching(*transaction_, index_, {subject.value, kind}).Next();
}

void Store::ReadVersion() {
  auto const row = Row({}, 0);
  if (!row) return;
  version_row_ = row->id();
  version_ = Property<std::uint64_t>(*table_, u"Version").GetOr(*row, 0);
}

// Nobody is to believe in what was known before.
void Store::Touch() {
  auto row = Row({}, 0);
  if (!row) row = Object::Create(*transaction_, *table_);
  Property<std::uint64_t>(*table_, u"Version").Set(*row, NewVersion());
  detail::Inside(transaction_->context(), [] { metalayer::AdvanceSchemaGeneration(); });
  transaction_->Forget();
  ReadVersion();
}

std::optional<std::string> Store::Read(ObjectId subject, Annotation::Kind kind) const {
  auto const row = Row(subject, NumberOf(kind));
  if (!row) return std::nullopt;
  return Property<std::string>(*table_, u"Text").GetOr(*row, "");
}

void Store::Write(ObjectId subject, Annotation::Kind kind, std::optional<std::string> const& text) {
  if (Read(subject, kind) == text) return;
  auto row = Row(subject, NumberOf(kind));
  if (!text) {
    row->Delete();
  } else {
    if (!row) {
      row = Object::Create(*transaction_, *table_);
      Property<std::uint64_t>(*table_, u"Subject").Set(*row, subject.value);
      Property<std::uint64_t>(*table_, u"Kind").Set(*row, NumberOf(kind));
    }
    Property<std::string>(*table_, u"Text").Set(*row, *text);
  }
  Touch();
}

std::vector<Annotation> Store::All() const {
  Property<std::uint64_t> const subject(*table_, u"Subject");
  Property<std::uint64_t> const kind(*table_, u"Kind");
  Property<std::string> const text(*table_, u"Text");
  std::vector<Annotation> all;
  for (Object const& row : Range::Matching(*transaction_, index_, {})) {
    ReadScope const scope(transaction_->context());
    ObjectId const id{subject.GetOr(row, 0)};
    if (id.value == 0) continue;
    all.push_back({id, static_cast<Annotation::Kind>(kind.GetOr(row, 0)), text.GetOr(row, "")});
  }
  return all;
}

}  // namespace sagleme::annotations
