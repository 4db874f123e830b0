#include "jobs/store.h"

#include <algorithm>
#include <array>
#include <cstring>

namespace sagleme::jobs {
namespace {

constexpr char16_t kTable[] = u"Sagleme.Internal.Job";
constexpr char16_t kParts[] = u"Sagleme.Internal.JobPart";
constexpr std::size_t kIdsInPart = 32768;

std::string TextOf(Object const& row, Table const& table, char16_t const* column) {
  return Property<std::string>(table, column).GetOr(row, "");
}

std::uint64_t NumberOf(Object const& row, Table const& table, char16_t const* column) {
  return Property<std::uint64_t>(table, column).GetOr(row, 0);
}

void Put(Object const& row, Table const& table, char16_t const* column, std::uint64_t number) {
  Property<std::uint64_t>(table, column).Set(row, number);
}

void Put(Object const& row, Table const& table, char16_t const* column, std::string const& text) {
  Property<std::string>(table, column).Set(row, text);
}

Row RowOf(Object const& object, Table const& table) {
  ReadScope const scope(object.transaction().context());
  Row row;
  row.id = object.id();
  row.kind = static_cast<JobKind>(NumberOf(object, table, u"Kind"));
  row.description = TextOf(object, table, u"Description");
  row.details = TextOf(object, table, u"Details");
  row.input = TextOf(object, table, u"Input");
  row.runner = TextOf(object, table, u"Runner");
  row.reason = TextOf(object, table, u"Reason");
  row.position = NumberOf(object, table, u"Position");
  row.done = NumberOf(object, table, u"Done");
  row.total = NumberOf(object, table, u"Total");
  row.rate = NumberOf(object, table, u"Rate");
  row.batch = NumberOf(object, table, u"Batch");
  row.pause = NumberOf(object, table, u"Pause");
  return row;
}

Bytes Packed(std::span<ObjectId const> ids) {
  Bytes bytes;
  for (ObjectId const id : ids) {
    for (int shift = 0; shift < 64; shift += 8) {
      bytes.push_back(static_cast<Bytes::value_type>((id.value >> shift) & 0xFF));
    }
  }
  return bytes;
}

void Unpack(Bytes const& bytes, std::vector<ObjectId>& ids) {
  for (std::size_t at = 0; at + 8 <= bytes.size(); at += 8) {
    std::uint64_t id = 0;
    for (std::size_t i = 0; i < 8; ++i) {
      id |= std::uint64_t{static_cast<unsigned char>(bytes[at + i])} << (8 * i);
    }
    ids.push_back({id});
  }
}

}  // namespace

std::optional<Store> Store::Find(Transaction& transaction) {
  TablePtr const table = transaction.Find(kTable);
  TablePtr const parts = transaction.Find(kParts);
  if (table == nullptr || parts == nullptr) return std::nullopt;
  return Store(transaction, table, parts);
}

Store Store::Make(Transaction& transaction) {
  if (auto const found = Find(transaction)) return *found;
  std::array const columns{ColumnSpec{u"Kind", Type::kULong, false},
                           ColumnSpec{u"Description"},
                           ColumnSpec{u"Details"},
                           ColumnSpec{u"Input"},
                           ColumnSpec{u"Runner"},
                           ColumnSpec{u"Reason"},
                           ColumnSpec{u"Position", Type::kULong, false},
                           ColumnSpec{u"Done", Type::kULong, false},
                           ColumnSpec{u"Total", Type::kULong, false},
                           ColumnSpec{u"Rate", Type::kULong, false},
                           ColumnSpec{u"Batch", Type::kULong, false},
                           ColumnSpec{u"Pause", Type::kULong, false}};
  CreateTable(transaction, kTable, u"", columns);
  std::array const part{ColumnSpec{u"Job", Type::kULong, false},
                        ColumnSpec{u"Number", Type::kULong, false},
                        ColumnSpec{u"Ids", Type::kBinary}};
  CreateTable(transaction, kParts, u"", part);
  return *Find(transaction);
}

std::vector<Row> Store::All() const {
  std::vector<Row> rows;
  for (Object const& row : Range::Only(*transaction_, *table_)) rows.push_back(RowOf(row, *table_));
  std::sort(rows.begin(), rows.end(),
            [](Row const& a, Row const& b) { return a.id.value < b.id.value; });
  return rows;
}

// A number may be that of any object.
std::optional<Object> Store::Find(ObjectId id) const {
  auto row = Object::Find(*transaction_, id);
  if (!row || row->setspec() != table_->setspec) return std::nullopt;
  return row;
}

std::optional<Row> Store::Read(ObjectId id) const {
  auto const row = Find(id);
  if (!row) return std::nullopt;
  return RowOf(*row, *table_);
}

void Store::Add(Row& row) const {
  Object const object = Object::Create(*transaction_, *table_);
  Put(object, *table_, u"Kind", static_cast<std::uint64_t>(row.kind));
  Put(object, *table_, u"Description", row.description);
  Put(object, *table_, u"Details", row.details);
  row.id = object.id();
  Update(row);
}

void Store::Update(Row const& row) const {
  Object const object = *Find(row.id);
  Put(object, *table_, u"Input", row.input);
  Put(object, *table_, u"Runner", row.runner);
  Put(object, *table_, u"Reason", row.reason);
  Put(object, *table_, u"Position", row.position);
  Put(object, *table_, u"Done", row.done);
  Put(object, *table_, u"Total", row.total);
  Put(object, *table_, u"Rate", row.rate);
  Put(object, *table_, u"Batch", row.batch);
  Put(object, *table_, u"Pause", row.pause);
}

std::vector<Object> Store::PartsOf(ObjectId job) const {
  Property<std::uint64_t> const number(*parts_, u"Number");
  std::vector<Object> parts;
  for (Object const& part : Range::Only(*transaction_, *parts_)) {
    if (NumberOf(part, *parts_, u"Job") == job.value) parts.push_back(part);
  }
  std::sort(parts.begin(), parts.end(), [&](Object const& a, Object const& b) {
    return number.GetOr(a, 0) < number.GetOr(b, 0);
  });
  return parts;
}

void Store::Delete(ObjectId id) const {
  auto row = Find(id);
  if (!row) return;
  for (Object& part : PartsOf(id)) part.Delete();
  row->Delete();
}

void Store::AddIds(ObjectId job, std::span<ObjectId const> ids) const {
  for (std::uint64_t number = 0; !ids.empty(); ++number) {
    auto const part = ids.first(std::min(ids.size(), kIdsInPart));
    Object const object = Object::Create(*transaction_, *parts_);
    Put(object, *parts_, u"Job", job.value);
    Put(object, *parts_, u"Number", number);
    Property<Bytes>(*parts_, u"Ids").Set(object, Packed(part));
    ids = ids.subspan(part.size());
  }
}

std::vector<ObjectId> Store::Ids(ObjectId job) const {
  std::vector<ObjectId> ids;
  for (Object const& part : PartsOf(job)) {
    ReadScope const scope(transaction_->context());
    Unpack(Property<Bytes>(*parts_, u"Ids").GetOr(part, {}), ids);
  }
  return ids;
}

}  // namespace sagleme::jobs
