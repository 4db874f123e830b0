#ifndef SAGLEME_HOST_TRANSACTION_HPP
#define SAGLEME_HOST_TRANSACTION_HPP

// A transaction and its view of the schema.
//
// Tables are read from the catalogue on first use and kept until the transaction ends or Forget is
// called. The functions of <sagleme/host/schema.hpp> call Forget themselves.

#include <functional>
#include <map>
#include <memory>
#include <sagleme/host/table.hpp>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace sagleme {

class Transaction;

namespace detail {

// What the annotations of a database ask of writes, see <sagleme/annotations.hpp>.
class Rules;

// Null if the database has no annotations that writes must heed. `fresh`: what is known of earlier
// transactions may not hold in this one.
SAGLEME_HOST_API std::shared_ptr<Rules const> ReadRules(Transaction& transaction, bool fresh);

// Whether the table of an object is there.
inline bool IsOfLiveTable(std::uint64_t context, std::uint64_t oid);

// Which layouts have objects of tables that are there. The objects of a dropped table stay until
// vacuum takes them away, also in the ranges of the tables that it derived from. All objects under
// a layout are of one table.
class LiveLayouts {
 public:
  // Whether the table of an object under that layout is there.
  bool Holds(std::uint64_t context, std::uint64_t oid, std::uint16_t layout) {
    if (layout >= known_.size()) known_.resize(layout + std::size_t{64});
    Known& known = known_[layout];
    if (known == Known::kNot) known = IsOfLiveTable(context, oid) ? Known::kLive : Known::kDropped;
    return known == Known::kLive;
  }
  void Forget() { known_.clear(); }

 private:
  enum class Known : std::uint8_t { kNot, kLive, kDropped };

  std::vector<Known> known_;
};

}  // namespace detail

class Transaction : public RawTransaction {
 public:
  using RawTransaction::RawTransaction;

  // By full name; null if there is none.
  TablePtr Find(TextView const& full_name);
  // By full name. Throws Error with SAGLEME_TABLE_NOT_FOUND if there is none.
  TablePtr table(TextView const& full_name);
  // By a name whose leading segments may be omitted. SAGLEME_TABLE_NOT_FOUND, or
  // SAGLEME_AMBIGUOUS_NAME if several tables match.
  TablePtr Resolve(TextView const& name);
  // By the catalogue's row; null if there is none.
  TablePtr ById(ObjectId id);
  // The table of all objects with this set specifier; null if it was dropped.
  TablePtr BySetspec(std::u16string_view setspec);
  // An object's table; null if it was dropped.
  TablePtr TableOf(LS_OBJ_REF const& object);
  // Whether an object belongs to a table, given by its row, or to one of its descendants.
  bool Holds(ObjectId table, LS_OBJ_REF const& object);
  // All tables, ordered by full name; the catalogue's own tables on request.
  std::vector<TablePtr> Tables(bool system = false);
  // The direct descendants of a table, ordered by full name.
  std::vector<TablePtr> Children(Table const& table, bool system = false);
  // An index by its name, which is unique in the database.
  std::optional<Index> FindIndex(TextView const& name);

  // The counter of schema changes, as this transaction sees it.
  std::uint64_t Generation();

  detail::LiveLayouts& live_layouts() { return live_layouts_; }
  // What annotations ask of writes; null for nothing. Read once, when it is first asked for.
  detail::Rules const* rules() {
    if (!rules_known_) [[unlikely]] {
      rules_ = detail::ReadRules(*this, schema_changed_);
      rules_known_ = true;
    }
    return rules_.get();
  }
  // Discards what is kept of the schema. Call it after schema changes.
  void Forget() {
    by_id_.clear();
    by_setspec_.clear();
    by_name_.clear();
    held_.clear();
    live_layouts_.Forget();
    rules_.reset();
    rules_known_ = false;
    schema_changed_ = true;
  }

 private:
  // REQUIRES: this transaction's context is the thread's current one.
  TablePtr Keep(metalayer::RawView const& view);

  std::map<std::uint64_t, TablePtr> by_id_;
  std::map<std::u16string, TablePtr, std::less<>> by_setspec_;
  std::map<std::u16string, TablePtr, std::less<>> by_name_;
  // Layouts whose objects a table holds: all objects of a layout belong to one table.
  std::set<std::pair<std::uint64_t, std::uint16_t>> held_;
  detail::LiveLayouts live_layouts_;
  std::shared_ptr<detail::Rules const> rules_;
  bool rules_known_ = false;
  bool schema_changed_ = false;  // or a savepoint was rolled back to
};

// The root table, which all others derive from.
inline TablePtr RootTable(Transaction& transaction) {
  return transaction.table(u"Lorvenstack.Internal.Metadata.MotherOfAllLayouts");
}

// ---- bodies -------------------------------------------------------------------------------------

inline bool detail::IsOfLiveTable(std::uint64_t context, std::uint64_t oid) {
  return Inside(context, [&] {
    LORV_STRING* setspec = nullptr;
    metalayer::Check(lorv_context_get_setspec(context, oid, 0, &setspec));
    std::u16string const text(setspec->units, setspec->length);
    auto const row = metalayer::SetSpecifier::ByTypeId_postV2_3(text.c_str());
    if (row.is_null()) return false;
    std::uint64_t addr = 0;
    auto const table = CatalogueRef(row, metalayer::SetSpecifier::kType);
    return table.oid != 0 && lorv_context_lookup(context, table.oid, &addr) == LORV_STATUS_OK;
  });
}

inline TablePtr Transaction::Keep(metalayer::RawView const& view) {
  if (view.is_null()) return nullptr;
  TablePtr& kept = by_id_[view.oid];
  if (kept != nullptr) return kept;
  TablePtr const table = detail::LoadTable(view);
  by_setspec_[table->setspec] = table;
  by_name_[table->name] = table;
  return kept = table;
}

inline TablePtr Transaction::Find(TextView const& full_name) {
  auto const kept = by_name_.find(full_name.view());
  if (kept != by_name_.end()) return kept->second;
  return detail::Inside(context(), [&] {
    std::u16string const name = full_name.str();
    return Keep(metalayer::RawView::ByRawViewPK2fullname(name.c_str()));
  });
}

inline TablePtr Transaction::table(TextView const& full_name) {
  if (TablePtr const found = Find(full_name)) return found;
  throw Error(SAGLEME_TABLE_NOT_FOUND, "Table " + ToUtf8(full_name) + " not found.");
}

inline TablePtr Transaction::Resolve(TextView const& name) {
  if (TablePtr const exact = Find(name)) return exact;
  return detail::Inside(context(), [&] {
    std::u16string const text = name.str();
    return Keep(metalayer::DottedName2RawView(metalayer::DottedName::Split(text.c_str())));
  });
}

inline TablePtr Transaction::ById(ObjectId id) {
  auto const kept = by_id_.find(id.value);
  if (kept != by_id_.end()) return kept->second;
  return detail::Inside(context(), [&]() -> TablePtr {
    LS_OBJ_REF row{id.value, 0};
    auto const status = lorv_context_lookup(context(), row.oid, &row.addr);
    if (status == LORV_STATUS_NO_OBJECT || status == LORV_STATUS_UNREACHABLE) return nullptr;
    metalayer::Check(status);
    if (metalayer::LayoutOf(row) != metalayer::RawView::metaclass_layout_handle()) return nullptr;
    return Keep(metalayer::RawView(row));
  });
}

inline TablePtr Transaction::BySetspec(std::u16string_view setspec) {
  auto const kept = by_setspec_.find(setspec);
  if (kept != by_setspec_.end()) return kept->second;
  ObjectId const id = detail::Inside(context(), [&] {
    std::u16string const text(setspec);
    auto const row = metalayer::SetSpecifier::ByTypeId_postV2_3(text.c_str());
    if (row.is_null()) return ObjectId{};
    return ObjectId{detail::CatalogueRef(row, metalayer::SetSpecifier::kType).oid};
  });
  return by_setspec_[std::u16string(setspec)] = id.value == 0 ? nullptr : ById(id);
}

inline TablePtr Transaction::TableOf(LS_OBJ_REF const& object) {
  ReadScope const scope(context());
  LORV_STRING* setspec = nullptr;
  auto const status = lorv_context_get_setspec(context(), object.oid, object.addr, &setspec);
  if (status == LORV_STATUS_NULL) return nullptr;
  detail::CheckKernel(status);
  return BySetspec({setspec->units, setspec->length});
}

inline bool Transaction::Holds(ObjectId table, LS_OBJ_REF const& object) {
  std::pair const key{table.value, metalayer::LayoutOf(object)};
  if (held_.contains(key)) return true;
  TablePtr const wanted = ById(table);
  if (wanted == nullptr) return false;
  // One that is being made may not have its set specifier yet.
  TablePtr const own = wanted->layout == key.second ? wanted : TableOf(object);
  if (own == nullptr || !own->IsA(*wanted)) return false;
  held_.insert(key);
  return true;
}

inline std::vector<TablePtr> Transaction::Tables(bool system) {
  return detail::Inside(context(), [&] {
    std::vector<TablePtr> tables;
    db_util::db_iter_with_keys rows;
    metalayer::Key(rows.first_key).Null();
    metalayer::Key(rows.last_key).TextUpperBound(u"");
    rows.open(metalayer::RawView::index_id_RawViewPK2fullname(), metalayer::kForward);
    while (rows.next()) {
      TablePtr table = Keep(metalayer::RawView(rows.current));
      if (system || !table->system) tables.push_back(std::move(table));
    }
    return tables;
  });
}

inline std::vector<TablePtr> Transaction::Children(Table const& table, bool system) {
  detail::RequireOwn(*this, table);
  return detail::Inside(context(), [&] {
    std::vector<TablePtr> children;
    metalayer::ddl::EnumChildren(table.row, [&](metalayer::RawView const& row) {
      TablePtr child = Keep(row);
      if (system || !child->system) children.push_back(std::move(child));
    });
    std::sort(children.begin(), children.end(),
              [](TablePtr const& a, TablePtr const& b) { return a->name < b->name; });
    return children;
  });
}

inline std::optional<Index> Transaction::FindIndex(TextView const& name) {
  return detail::Inside(context(), [&]() -> std::optional<Index> {
    std::u16string const text = name.str();
    auto const row = metalayer::Index::ByIndexPK(text.c_str());
    if (row.is_null()) return std::nullopt;
    return detail::LoadIndex(row);
  });
}

inline std::uint64_t Transaction::Generation() {
  return detail::Inside(context(), [] { return lorv_get_metaschema_generation(); });
}

}  // namespace sagleme

#endif
