// Objects and index scans against the model.

#include <algorithm>
#include <sagleme/metalayer.hpp>

#include "model/session.h"

namespace sagleme_model {

namespace {

using metalayer::Key;
using sagleme_test::Utf8;
using Uids = std::vector<Uid>;

constexpr uint32_t kNull = LORV_STATUS_NULL;

// Bytes and texts order by unsigned unit, null stands below all values.
bool Less(Value const& a, Value const& b) {
  if (a.index() != b.index()) return a.index() < b.index();
  if (auto const* bytes = std::get_if<std::string>(&a)) {
    return std::lexicographical_compare(
        bytes->begin(), bytes->end(), std::get<std::string>(b).begin(),
        std::get<std::string>(b).end(),
        [](char x, char y) { return static_cast<uint8_t>(x) < static_cast<uint8_t>(y); });
  }
  return a < b;
}

struct KeyedObject {
  Uid row;
  std::vector<Value> key;
};

class IndexOrder {
 public:
  explicit IndexOrder(Index const& index) : index_(index) {}
  bool operator()(KeyedObject const& a, KeyedObject const& b) const {
    for (std::size_t i = 0; i < a.key.size(); ++i) {
      bool const up = index_.columns[i].ascending;
      if (Less(a.key[i], b.key[i])) return up;
      if (Less(b.key[i], a.key[i])) return !up;
    }
    return a.row < b.row;
  }

 private:
  Index const& index_;
};

std::string Listed(Uids const& rows) {
  std::string text;
  for (Uid const row : rows) text += " " + std::to_string(row);
  return text;
}

class ObjectComparison {
 public:
  ObjectComparison(Model const& model, Session& session, Differences& differences)
      : model_(model), session_(session), out_(differences) {}

  void Run() {
    for (auto const& [row, object] : model_.objects) CompareType(object);
    for (Uid const row : model_.deleted_objects) CompareDeleted(row);
    for (auto const& [row, table] : model_.tables) {
      if (row != Model::kRoot) CompareValues(table);
    }
    for (auto const& [row, index] : model_.indexes) CompareIndex(index);
    for (auto const& [setspec, row] : model_.setspecs) {
      if (!setspec.empty()) CompareSet(setspec);
    }
  }

 private:
  uint64_t OidOf(Uid row) const { return session_.identities().Of(row); }

  // Objects of a table that is gone are there still, and are of no type.
  void CompareType(Object const& object) {
    std::string const what = "object " + std::to_string(object.row);
    uint64_t addr = 0;
    uint64_t type_id = 0;
    out_.Same(what + ", status of its look-up", 0u,
              lorv_crud_Lookup(session_.context(), OidOf(object.row), &addr, &type_id));
    auto const table = model_.tables.find(object.table);
    out_.Same(what + ", type id", table == model_.tables.end() ? 0 : table->second.type_id,
              type_id);
  }

  void CompareDeleted(Uid row) {
    uint64_t addr = 0;
    uint64_t type_id = 0;
    uint32_t const status = lorv_crud_Lookup(session_.context(), OidOf(row), &addr, &type_id);
    bool const gone = status == LORV_STATUS_NO_OBJECT || status == LORV_STATUS_UNREACHABLE;
    if (!gone) {
      out_.Add("deleted object " + std::to_string(row) + " answers " + std::to_string(status));
    }
  }

  void CompareValues(Table const& table) {
    for (Column const& column : table.columns) {
      PropertyAccessInfo* handle = nullptr;
      uint32_t const status = PropertyHandle(session_.context(), table.name, column.name, &handle);
      std::string const what = Utf8(table.name) + "." + Utf8(column.name);
      out_.Same("handle of " + what, 0u, status);
      if (status != 0) continue;
      for (auto const& [row, object] : model_.objects) {
        if (object.table == table.row) CompareValue(what, handle, column, object);
      }
    }
  }

  Value Expected(Column const& column, Object const& object) const {
    if (column.name == u"__id") return OidOf(object.row);
    if (column.name == u"__setspecifier") return object.setspec;
    Value value = object.ValueOf(column.declared);
    bool const never_null = column.name == u"__type_id" || !column.nullable;
    if (IsNull(value) && never_null) value = ZeroOf(column.type);
    return value;
  }

  void CompareValue(std::string const& what, PropertyAccessInfo const* handle, Column const& column,
                    Object const& object) {
    std::string const place = what + " of object " + std::to_string(object.row);
    Value found;
    uint32_t const status = ReadValue(session_, handle, OidOf(object.row), column.type, &found);
    Value const expected = Expected(column, object);
    out_.Same(place + ", status", IsNull(expected) ? kNull : 0u, status);
    if (status == 0) out_.Same(place, expected, found);
    if (status == 0 && column.type == kReference) CompareTargetType(place, handle, object);
  }

  void CompareTargetType(std::string const& place, PropertyAccessInfo const* handle,
                         Object const& object) {
    LS_OBJ_REF reference{};
    uint64_t type_id = 0;
    uint32_t const status = lorv_crud_ReadRefAndType(session_.context(), handle, OidOf(object.row),
                                                     0, &reference, &type_id);
    out_.Same(place + ", status of reference and type", 0u, status);
    auto const target = model_.objects.find(session_.identities().RowOf(reference.oid));
    uint64_t expected = 0;
    if (target != model_.objects.end()) {
      auto const table = model_.tables.find(target->second.table);
      if (table != model_.tables.end()) expected = table->second.type_id;
    }
    out_.Same(place + ", type of the target", expected, type_id);
  }

  // ---- scans

  Uids Scan(unsigned long index_id, unsigned flags, std::vector<Value> const& key) {
    Uids rows;
    db_util::db_iter_with_keys scan;
    WriteKey(scan.first_key, key);
    WriteKey(scan.last_key, key);
    scan.open(index_id, flags);
    while (scan.next()) rows.push_back(session_.identities().RowOf(scan.current.oid));
    return rows;
  }

  void WriteKey(unsigned char (&area)[db_util::db_iter_with_keys::kKeySize],
                std::vector<Value> const& values) {
    Key key(area);
    for (Value const& value : values) WriteField(key, value);
    key.UpdateHeader();
  }

  void WriteField(Key& key, Value const& value) {
    if (IsNull(value)) key.Null();
    if (auto const* text = std::get_if<Text>(&value)) key.Text(text->c_str());
    if (auto const* number = std::get_if<int64_t>(&value)) key.Long(*number);
    if (auto const* number = std::get_if<uint64_t>(&value)) key.ULong(*number);
    if (auto const* number = std::get_if<float>(&value)) key.Double(double{*number});
    if (auto const* number = std::get_if<double>(&value)) key.Double(*number);
    if (auto const* reference = std::get_if<Reference>(&value)) key.ULong(OidOf(reference->target));
  }

  std::vector<KeyedObject> InOrder(Index const& index) const {
    std::vector<KeyedObject> objects;
    for (Object const* object : model_.ObjectsUnder(index.setspec)) {
      objects.push_back({object->row, model_.KeyOf(index, *object)});
    }
    std::sort(objects.begin(), objects.end(), IndexOrder(index));
    return objects;
  }

  void SameRows(std::string const& what, Uids const& expected, Uids const& found) {
    if (expected != found) {
      out_.Add(what + ": expected" + Listed(expected) + ", found" + Listed(found));
    }
  }

  void CompareIndex(Index const& index) {
    std::string const what = "scan of " + Utf8(index.name);
    metalayer::Index const row = metalayer::Index::ByIndexPK(index.name.c_str());
    if (row.is_null()) return;
    unsigned long const id = GetULong(row, metalayer::Index::kIndexHandle);
    std::vector<KeyedObject> const objects = InOrder(index);
    Uids rows;
    for (KeyedObject const& object : objects) rows.push_back(object.row);
    SameRows(what, rows, Scan(id, metalayer::kForward, {}));
    Uids const backwards(rows.rbegin(), rows.rend());
    SameRows(what + " backwards", backwards, Scan(id, metalayer::kReverse, {}));
    if (!objects.empty()) CompareRange(what, id, objects);
  }

  // The objects that agree with the middle one in the first column.
  void CompareRange(std::string const& what, unsigned long id,
                    std::vector<KeyedObject> const& objects) {
    Value const value = objects[objects.size() / 2].key.front();
    if (std::holds_alternative<std::string>(value)) return;
    Uids rows;
    for (KeyedObject const& object : objects) {
      if (object.key.front() == value) rows.push_back(object.row);
    }
    SameRows(what + " at " + Describe(value), rows, Scan(id, metalayer::kForward, {value}));
  }

  void CompareSet(Text const& setspec) {
    Uids expected;
    for (Object const* object : model_.ObjectsUnder(setspec)) expected.push_back(object->row);
    Uids found;
    db_util::db_iter_with_keys scan;
    metalayer::RangeGlobalSetspecIndex(setspec.c_str(), &scan);
    for (; scan.current.oid != 0; scan.next()) {
      found.push_back(session_.identities().RowOf(scan.current.oid));
    }
    std::sort(found.begin(), found.end());
    SameRows("objects under " + Utf8(setspec), expected, found);
  }

  Model const& model_;
  Session& session_;
  Differences& out_;
};

}  // namespace

void Session::CompareObjects(Model const& model, Differences& differences) {
  ObjectComparison(model, *this, differences).Run();
}

}  // namespace sagleme_model
