#include <fmt/format.h>
#include <lscoredb/move.h>

#include <algorithm>
#include <map>
#include <sagleme/counts.hpp>
#include <sagleme/hierarchy.hpp>
#include <sagleme/vacuum.hpp>

#include "hierarchy/column_annotations.h"
#include "hierarchy/column_tokens.h"
#include "hierarchy/referrers.h"
#include "hierarchy/refused_key.h"
#include "hierarchy/shape.h"

namespace sagleme {
namespace {

[[noreturn]] void Refuse(std::string const& what) { throw Failure(Failure::Kind::kRefused, what); }

// The table and the base that a request names.
struct Request {
  TablePtr table;
  TablePtr base;
  bool same = false;
};

Request FindRequest(Transaction& transaction, Text const& name, Text const& base_name) {
  Request request;
  request.table = transaction.table(name);
  request.base = base_name.empty() ? RootTable(transaction) : transaction.Find(base_name);
  if (request.base == nullptr) {
    throw Error(SAGLEME_BASE_NOT_FOUND, fmt::format("Base table {} not found.", ToUtf8(base_name)));
  }
  if (request.table->system) {
    Refuse(fmt::format("table {} belongs to the catalogue itself", ToUtf8(name)));
  }
  if (request.base->system && request.base->id() != RootTable(transaction)->id()) {
    Refuse(fmt::format("the base {} belongs to the catalogue itself", ToUtf8(base_name)));
  }
  if (request.base->IsA(*request.table)) {
    Refuse(request.base->id() == request.table->id()
               ? fmt::format("table {} cannot derive from itself", ToUtf8(name))
               : fmt::format("table {} cannot derive from {}, which derives from it", ToUtf8(name),
                             ToUtf8(base_name)));
  }
  request.same = request.table->base == request.base->name;
  return request;
}

// A set specifier has at most so many units of its own.
constexpr std::size_t kLongestOwnPart = 16;

void RequireDepth(Request const& request, std::vector<Shape> const& shapes) {
  for (Shape const& shape : shapes) {
    Table base;
    base.setspec = request.base->setspec;
    std::u16string const below = shape.table->setspec.substr(request.table->setspec.size());
    if (!below.empty()) base.setspec += std::u16string(kLongestOwnPart, u'a') + below;
    if (!detail::IsTooDeepToDerive(base)) continue;
    throw Error(SAGLEME_TOO_DEEP,
                fmt::format("Table {} cannot derive from {}: {} would have too many tables above "
                            "it, one over another. Derive it from a table nearer to the root.",
                            ToUtf8(request.table->name), ToUtf8(request.base->name),
                            ToUtf8(shape.table->name)));
  }
}

void RequireFew(Transaction& transaction, Table const& table, std::uint64_t most) {
  std::uint64_t const objects = ObjectCounts(transaction).Subtree(table);
  if (objects <= most) return;
  Refuse(
      fmt::format("table {} has {} objects with its descendants, and at most {} may move in one "
                  "transaction",
                  ToUtf8(table.name), objects, most));
}

std::vector<Referrer> ReferrersTo(Transaction& transaction, Request const& request) {
  ReferrerQuery query;
  query.loses = [&](Table const& target) {
    return request.table->IsA(target) && target.id() != request.table->id() &&
           !request.base->IsA(target);
  };
  query.leaves = [&](ObjectId id) {
    auto const object = Object::Find(transaction, id);
    return object && transaction.Holds(request.table->id(), object->reference());
  };
  return FindReferrers(transaction, query);
}

// A table that moves: its shape, where its objects go, and what gets their values there.
struct Moving {
  Shape const* shape = nullptr;
  Destination destination;
  std::u16string name;
};

class BaseSetter {
 public:
  BaseSetter(Transaction& transaction, Request const& request, std::vector<Shape> const& shapes)
      : transaction_(transaction), request_(request), shapes_(shapes) {}

  // The indexes of the tables are made anew behind the objects, which then enter them all at once.
  void Run() {
    detail::Inside(transaction_.context(), [&] {
      for (Shape const& shape : shapes_) DropKernelIndexes(*shape.table);
      for (Shape const& shape : shapes_) MoveTable(shape);
    });
    for (Moving const& moving : moving_) MoveObjects(moving);
    for (Moving const& moving : moving_) MovePrepared(moving);
    detail::Inside(transaction_.context(), [&] {
      for (Moving const& moving : moving_) CreateKernelIndexes(moving);
      metalayer::AdvanceSchemaGeneration();
    });
    DropMoveRequests();
    CloseSets();
    transaction_.Forget();
  }

 private:
  std::uint64_t context() const { return transaction_.context(); }

  // ---- the catalogue

  void DropKernelIndexes(Table const& table) const {
    for (Index const& index : table.indexes) {
      metalayer::Check(lorvi_context_drop_index(context(), index.handle));
    }
  }

  void MoveTable(Shape const& shape) {
    metalayer::RawView view(shape.table->row);
    bool const top = shape.table == request_.table;
    if (top) metalayer::PutRef(view, metalayer::RawView::kInherits, request_.base->row);
    WriteColumns(shape, view);
    Moving moving;
    moving.shape = &shape;
    moving.name = shape.table->name;
    moving.destination.copies = CopiesOf(shape);
    copies_[shape.table->name] = moving.destination.copies;
    moving.destination.layout = NewLayout(shape, view);
    moving.destination.setspec = NewSet(shape, view);
    setspecs_[shape.table->name] = moving.destination.setspec;
    moving_.push_back(std::move(moving));
  }

  // An open scan over the ordinals permits two columns to share one until all have theirs.
  void WriteColumns(Shape const& shape, metalayer::RawView const& view) const {
    std::vector<metalayer::RawColumn> rows;
    for (Column const& column : shape.table->columns) {
      rows.push_back(metalayer::RawColumn::ByRawColumnPK(view, static_cast<short>(column.ordinal)));
    }
    db_util::db_iter_with_keys scan;
    metalayer::Key(scan.first_key).Ref(view);
    metalayer::Key(scan.last_key).Ref(view);
    scan.open(metalayer::RawColumn::index_id_RawColumnPK(), metalayer::kForward);
    for (std::size_t i = 0; i < shape.columns.size(); ++i) {
      ShapeColumn const& column = shape.columns[i];
      if (column.present) {
        PlaceColumn(shape, rows[*column.present], i);
      } else {
        CopyColumn(view, column.column, i);
      }
    }
  }
  static void PlaceColumn(Shape const& shape, metalayer::RawColumn const& row, std::size_t i) {
    ShapeColumn const& column = shape.columns[i];
    if (*column.present != i) {
      metalayer::PutLong(row, metalayer::RawColumn::kColumnIndex, static_cast<long>(i));
    }
    if (shape.table->columns[*column.present].inherited != column.inherited) {
      metalayer::PutBool(row, metalayer::RawColumn::kInherited, column.inherited);
    }
  }
  // The base's row is the pattern.
  void CopyColumn(metalayer::RawView const& view, Column const& column, std::size_t i) const {
    auto const pattern =
        metalayer::RawColumn::ByRawColumnPK(request_.base->row, static_cast<short>(column.ordinal));
    LS_OBJ_REF const type = pattern.get_ref(metalayer::RawColumn::kDataType);
    auto const ordinal = static_cast<short>(i);
    if (metalayer::LayoutOf(pattern) == metalayer::RawColumn::metaclass_layout_handle()) {
      metalayer::RawColumn::Insert(view, column.name.c_str(), type, true, column.nullable, false,
                                   ordinal);
      return;
    }
    std::u16string const target =
        metalayer::GetText(pattern, metalayer::ReferenceRawColumn::kDataTypeName);
    metalayer::ReferenceRawColumn::Insert(view, column.name.c_str(), type, true, column.nullable,
                                          false, ordinal, target.c_str());
  }

  // A column is known by the identity of its row in the table that declares it. So one that becomes
  // the table's own gets another token, and one that is merged gets the base's.
  std::uint64_t OwnToken(Table const& table, Column const& column) const {
    if (!column.inherited) return TokenOf(transaction_, table, column);
    return metalayer::assure_token(ToUtf16(std::to_string(column.id.value)).c_str());
  }
  std::vector<lscoredb_column_copy> CopiesOf(Shape const& shape) const {
    auto const above = copies_.find(shape.table->base);
    std::vector<lscoredb_column_copy> copies;
    if (above != copies_.end()) copies = above->second;
    for (std::u16string const& name : shape.kept) {
      Column const& column = shape.table->GetColumn(name);
      copies.push_back(
          {TokenOf(transaction_, *shape.table, column), OwnToken(*shape.table, column)});
    }
    for (std::u16string const& name : shape.merged) {
      copies.push_back({TokenOf(transaction_, *shape.table, shape.table->GetColumn(name)),
                        TokenOf(transaction_, *request_.base, request_.base->GetColumn(name))});
    }
    return copies;
  }

  std::uint16_t NewLayout(Shape const& shape, metalayer::RawView& view) const {
    std::vector<LORVI_COLUMN_DEFINITION> records;
    for (ShapeColumn const& column : shape.columns) {
      if (column.inherited) continue;
      LORVI_COLUMN_DEFINITION record{};
      record.type =
          metalayer::LogicalTypeToKernelType(static_cast<unsigned char>(column.column.type));
      record.is_nullable = column.column.nullable ? 1 : 0;
      record.token = OwnToken(*shape.table, column.column);
      records.push_back(record);
    }
    records.push_back({});
    return metalayer::ddl::RecreateTable(view, records);
  }

  // A table has one set. The row of the one that it leaves stays, owned by no table, so that the
  // text is not used again.
  std::u16string NewSet(Shape const& shape, metalayer::RawView const& view) const {
    auto const left = metalayer::SetSpecifier::ByType(view);
    metalayer::PutRef(left, metalayer::SetSpecifier::kType, left);
    auto const above = setspecs_.find(shape.table->base);
    return metalayer::NextSetspec(above == setspecs_.end() ? request_.base->setspec : above->second,
                                  view);
  }

  void CreateKernelIndexes(Moving const& moving) const {
    for (Index const& index : moving.shape->table->indexes) {
      std::uint64_t handle = 0;
      unsigned sort_mask = 0;
      auto const columns = IndexRecords(moving, index, sort_mask);
      metalayer::Check(lorvi_context_create_index(
          context(), metalayer::assure_token(index.name.c_str()),
          moving.destination.setspec.c_str(), columns.data(), static_cast<std::uint16_t>(sort_mask),
          index.unique ? LORV_INDEX_UNIQUE : 0, &handle));
      auto const row = metalayer::Index::ByIndexPK(index.name.c_str());
      metalayer::PutULong(row, metalayer::Index::kIndexHandle, handle);
    }
  }
  std::vector<LORVI_COLUMN_DEFINITION> IndexRecords(Moving const& moving, Index const& index,
                                                    unsigned& sort_mask) const {
    std::vector<LORVI_COLUMN_DEFINITION> records;
    for (IndexedColumn const& column : index.columns) {
      std::size_t const ordinal = moving.shape->OrdinalOf(column.name);
      LORVI_COLUMN_INFO info{};
      metalayer::Check(lorvi_context_get_column_info(context(), moving.destination.layout,
                                                     static_cast<std::uint16_t>(ordinal), &info));
      LORVI_COLUMN_DEFINITION record{};
      record.type = info.type;
      record.is_nullable = moving.shape->columns[ordinal].column.nullable ? 1 : 0;
      record.token = info.token;
      if (!column.ascending) sort_mask |= 1u << records.size();
      records.push_back(record);
    }
    records.push_back({});
    return records;
  }

  // ---- objects

  // No scan stays open: while one is, a unique key is checked by the commit alone.
  void MoveObjects(Moving const& moving) const {
    std::vector<ObjectId> objects;
    for (Object const& object : Range::Only(transaction_, *moving.shape->table)) {
      objects.push_back(object.id());
    }
    for (ObjectId const object : objects) {
      std::uint32_t const status = moving.destination.Take(transaction_, object);
      if (status == LSCOREDB_DUPLICATE_KEY) RefuseDuplicate(moving, object);
      detail::CheckKernel(status);
    }
  }
  [[noreturn]] void RefuseDuplicate(Moving const& moving, ObjectId id) const {
    Table const& from = *moving.shape->table;
    ColumnPairs kept;
    for (std::size_t i = 0; i < request_.base->columns.size(); ++i) {
      auto const& present = moving.shape->columns[i].present;
      if (present) kept.emplace_back(&from.columns[*present], &request_.base->columns[i]);
    }
    Object const object = *Object::Find(transaction_, id);
    throw Error(
        LSCOREDB_DUPLICATE_KEY,
        fmt::format("Table {} cannot derive from {}: object {} has a key that is taken: {}.",
                    ToUtf8(request_.table->name), ToUtf8(request_.base->name), id.value,
                    DescribeRefusedKey(transaction_, object, from, *request_.base, kept)));
  }

  // Indexes that are being built follow their table, and begin again.
  void MovePrepared(Moving const& moving) const {
    Destination const& to = moving.destination;
    detail::CheckKernel(lscoredb_move_prepared(context(), moving.shape->table->setspec.c_str(),
                                               to.setspec.c_str(), to.copies.data(),
                                               static_cast<std::uint32_t>(to.copies.size())));
  }

  // All objects are under the newest layout now.
  void DropMoveRequests() const {
    for (VacuumRequest const& request : VacuumRequests(transaction_)) {
      bool const ours = std::any_of(shapes_.begin(), shapes_.end(), [&](Shape const& shape) {
        return shape.table->setspec == request.setspec;
      });
      if (ours) Object::Find(transaction_, request.row)->Delete();
    }
  }
  void CloseSets() const {
    for (Shape const& shape : shapes_) {
      detail::CheckKernel(
          lscoredb_close_set(context(), shape.table->setspec.c_str(), LSCOREDB_CLOSE_EMPTY));
    }
  }

  Transaction& transaction_;
  Request const& request_;
  std::vector<Shape> const& shapes_;
  std::vector<Moving> moving_;
  std::map<std::u16string, std::vector<lscoredb_column_copy>> copies_;  // by table
  std::map<std::u16string, std::u16string> setspecs_;                   // new ones, by table
};

}  // namespace

SetBasePlan PlanSetBase(Transaction& transaction, Text const& table, Text const& base,
                        SetBaseOptions const& options) {
  Request const request = FindRequest(transaction, table, base);
  if (request.same) return {};
  std::vector<Shape> const shapes =
      ShapesUnder(transaction, request.table, request.base, options.merge);
  RequireDepth(request, shapes);
  SetBasePlan plan;
  plan.tables = shapes.size();
  plan.objects = ObjectCounts(transaction).Subtree(*request.table);
  plan.kept = shapes.front().kept;
  plan.merged = shapes.front().merged;
  plan.referrers = ReferrersTo(transaction, request);
  return plan;
}

void SetBase(Transaction& transaction, Text const& table, Text const& base,
             SetBaseOptions const& options) {
  Request const request = FindRequest(transaction, table, base);
  if (request.same) return;
  std::vector<Shape> const shapes =
      ShapesUnder(transaction, request.table, request.base, options.merge);
  RequireDepth(request, shapes);
  if (options.most_objects != 0) RequireFew(transaction, *request.table, options.most_objects);
  transaction.rules();  // what they require of the transaction outlives the savepoint
  Savepoint savepoint(transaction);
  SettleReferrers(transaction, ReferrersTo(transaction, request), options.referring,
                  fmt::format("table {} cannot leave {}", ToUtf8(request.table->name),
                              ToUtf8(request.table->base)));
  ColumnAnnotations const annotations(transaction, shapes);
  BaseSetter(transaction, request, shapes).Run();
  annotations.Restore();
  savepoint.Release();
}

}  // namespace sagleme
