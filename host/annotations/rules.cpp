#include "annotations/rules.h"

#include <mutex>

#include "annotations/default_text.h"
#include "annotations/store.h"

namespace sagleme {

annotations::Declared annotations::DeclaredColumn(Transaction& transaction, ObjectId row) {
  auto const object = Object::Find(transaction, row);
  if (!object) return {};
  ObjectId const owner = detail::Inside(transaction.context(), [&] {
    LS_OBJ_REF const reference = object->reference();
    return ObjectId{detail::CatalogueRef(reference, metalayer::RawColumn::kTable).oid};
  });
  TablePtr const table = transaction.ById(owner);
  if (table == nullptr) return {};
  for (Column const& column : table->columns) {
    if (column.id == row) return {table, &column};
  }
  return {};
}

namespace detail {
namespace {

// What is known of a database across transactions.
struct Known {
  std::mutex mutex;
  bool filled = false;
  std::uint64_t generation = 0;
  std::uint64_t version = 0;
  ObjectId version_row;  // 0: the database has no annotations
  std::uint16_t layout = 0;
  std::uint16_t ordinal = 0;
  std::shared_ptr<Rules const> rules;
};

int const g_key = 0;

void Release(void* known) { delete static_cast<Known*>(known); }

Known& KnownOf(std::uint64_t context) {
  void* found = nullptr;
  CheckKernel(lscoredb_attached(context, &g_key, &found));
  if (found != nullptr) return *static_cast<Known*>(found);
  auto made = std::make_unique<Known>();
  CheckKernel(lscoredb_attach(context, &g_key, made.get(), Release, &found));
  if (found == made.get()) static_cast<void>(made.release());
  return *static_cast<Known*>(found);
}

// Makes the transaction conflict with changes of the annotations.
void RequireVersion(Transaction& transaction, ObjectId row) {
  auto const status = lscoredb_require(transaction.context(), row.value);
  // One that only reads needs nothing.
  if (status == LSCOREDB_WRITE_REFUSED || status == LSCOREDB_READ_ONLY_DATABASE) return;
  CheckKernel(status);
}

std::uint64_t VersionIn(Transaction& transaction, Known const& known) {
  std::uint64_t version = 0;
  auto const status = Get(
      ColumnLocation{transaction.context(), known.version_row.value, known.layout, known.ordinal},
      version);
  return status == 0 ? version : 0;
}

bool Holds(Transaction& transaction, Known const& known, std::uint64_t generation) {
  if (!known.filled || known.generation != generation) return false;
  return known.version_row.value == 0 || VersionIn(transaction, known) == known.version;
}

std::shared_ptr<Rules const> Compile(Transaction& transaction) {
  auto rules = std::make_shared<Rules const>(transaction);
  return rules->empty() ? nullptr : rules;
}

std::shared_ptr<Rules const> ReadAnew(Transaction& transaction) {
  auto const store = annotations::Store::Find(transaction);
  if (!store || store->version() == 0) return nullptr;
  RequireVersion(transaction, store->version_row());
  return Compile(transaction);
}

void Fill(Transaction& transaction, std::uint64_t generation, Known& known) {
  auto const store = annotations::Store::Find(transaction);
  known.filled = false;
  known.version_row = store ? store->version_row() : ObjectId{};
  known.rules = store ? Compile(transaction) : nullptr;
  known.generation = generation;
  if (store) {
    known.version = store->version();
    known.layout = store->table().layout;
    known.ordinal = store->table().GetColumn(u"Version").ordinal;
  }
  known.filled = true;
}

}  // namespace

// Between two transactions only a comparison of two numbers is left to do.
std::shared_ptr<Rules const> ReadRules(Transaction& transaction, bool fresh) {
  if (fresh) return ReadAnew(transaction);
  Known& known = KnownOf(transaction.context());
  std::uint64_t const generation = transaction.Generation();
  std::lock_guard const lock(known.mutex);
  if (!Holds(transaction, known, generation)) Fill(transaction, generation, known);
  if (known.version_row.value != 0) RequireVersion(transaction, known.version_row);
  return known.rules;
}

Rules::Rules(Transaction& transaction) {
  for (Annotation const& each : Annotations(transaction)) {
    if (each.kind == Annotation::Kind::kComment) continue;
    if (each.kind == Annotation::Kind::kAbstract) {
      abstract_.insert(each.subject.value);
      continue;
    }
    auto const [table, column] = annotations::DeclaredColumn(transaction, each.subject);
    if (table == nullptr) continue;
    if (each.kind == Annotation::Kind::kDefault) {
      AddDefault(transaction, *table, column->name, each.text);
    } else if (TablePtr const target = transaction.ById(column->target_id)) {
      OnDelete const rule = ParseOnDelete(each.text).value_or(OnDelete::kKeep);
      if (rule != OnDelete::kKeep) references_.push_back({table, *column, target, rule});
    }
  }
}

void Rules::AddDefault(Transaction& transaction, Table const& table, std::u16string const& column,
                       std::string const& json) {
  Column const* const found = table.FindColumn(column);
  if (found == nullptr) return;
  Value const value = annotations::StoredDefault(found->type, json);
  if (!IsNull(value)) defaults_[table.row.oid].push_back({*found, value});
  for (TablePtr const& child : transaction.Children(table)) {
    AddDefault(transaction, *child, column, json);
  }
}

std::vector<DefaultRule> const& Rules::DefaultsOf(Table const& table) const {
  static std::vector<DefaultRule> const none;
  auto const found = defaults_.find(table.row.oid);
  return found == defaults_.end() ? none : found->second;
}

bool Rules::HasDefault(Table const& table, Column const& column) const {
  for (DefaultRule const& each : DefaultsOf(table)) {
    if (each.column.ordinal == column.ordinal) return true;
  }
  return false;
}

ReferenceRule const* Rules::Find(std::u16string_view setspec, std::u16string const& column) const {
  for (ReferenceRule const& each : references_) {
    if (each.column.name == column && setspec.starts_with(each.table->setspec)) return &each;
  }
  return nullptr;
}

void RequireConcrete(Rules const& rules, Table const& table) {
  if (!rules.IsAbstract(table)) return;
  throw Error(SAGLEME_ABSTRACT_TABLE,
              "Table " + ToUtf8(table.name) +
                  " is abstract: create an object of a table that derives from it.");
}

void PutDefaults(Rules const& rules, Object const& object, Table const& table) {
  for (DefaultRule const& each : rules.DefaultsOf(table)) {
    PutValue({object.transaction().context(), object.id().value, table.layout, each.column.ordinal},
             each.column.type, each.value);
  }
}

}  // namespace detail
}  // namespace sagleme
