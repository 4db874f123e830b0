#include "annotations/deletion.h"

#include <deque>
#include <set>

#include "annotations/referrers.h"
#include "text/fetch.h"

namespace sagleme {
namespace detail {
namespace {

// Writes an object as it is. A transaction that deletes it conflicts then, whichever commits first;
// to require it would only protect the transaction that requires.
void Touch(Transaction& transaction, Object const& object) {
  std::u16string const setspec = object.setspec();
  if (setspec.empty()) return;  // it is being made
  LS_OBJ_REF const reference = object.reference();
  CheckKernel(lorv_context_put_setspec(transaction.context(), reference.oid, reference.addr,
                                       setspec.c_str()));
}

ColumnLocation LocationOf(ReferenceRule const& rule, Object const& object) {
  return {object.transaction().context(), object.id().value, rule.table->layout,
          rule.column.ordinal};
}

// One deletion with all that follows from it. Whatever refuses is only asked at the end: it may go
// itself on the way. References that lead to a deleted object are found before it goes, and what
// the deleted object referred to is looked at when it is gone, so every object is visited once and
// cycles end.
class Deletion {
 public:
  Deletion(Rules const& rules, Transaction& transaction)
      : rules_(rules), transaction_(transaction) {}

  std::uint64_t Run(std::span<ObjectId const> ids) {
    for (ObjectId const id : ids) {
      RequireThere(id);
      Add(id);
    }
    return Finish();
  }
  // Deletes the targets of references that have gone, if those were the last ones.
  void Release(std::span<ObjectId const> targets) {
    for (ObjectId const target : targets) ReleaseTarget(target);
    Finish();
  }

 private:
  struct Holder {
    ReferenceRule const* rule;
    ObjectId from;
    ObjectId to;
  };

  void RequireThere(ObjectId id) const {
    std::uint64_t addr = 0;
    CheckKernel(lorv_context_lookup(transaction_.context(), id.value, &addr));
  }
  void Add(ObjectId id) {
    if (found_.insert(id).second) waiting_.push_back(id);
  }
  std::uint64_t Finish() {
    while (!waiting_.empty()) {
      ObjectId const id = waiting_.front();
      waiting_.pop_front();
      DeleteOne(id);
    }
    for (Holder const& each : holders_) {
      if (!found_.contains(each.from)) Refuse(each);
    }
    return found_.size();
  }

  void DeleteOne(ObjectId id) {
    ReadScope const scope(transaction_.context());
    Object const object = *Object::Find(transaction_, id);
    TablePtr const table = object.table();
    std::vector<ObjectId> targets;
    if (table != nullptr && !table->system) {  // a dropped table has no rules any more
      targets = CountedTargets(rules_, object, *table, [](Column const&) { return true; });
      for (ReferenceRule const& rule : rules_.references()) {
        if (rule.Concerns(*table)) Follow(rule, id);
      }
    }
    LS_OBJ_REF const reference = object.reference();
    CheckKernel(lorv_context_delete(transaction_.context(), reference.oid, reference.addr));
    for (ObjectId const target : targets) ReleaseTarget(target);
  }

  void Follow(ReferenceRule const& rule, ObjectId target) {
    std::vector<Object> const referrers =
        FindReferrers(transaction_, *rule.table, rule.column, target);
    if (rule.rule != OnDelete::kKeep && rule.rule != OnDelete::kRefuse) Fetch(referrers);
    for (Object const& from : referrers) {
      switch (rule.rule) {
        case OnDelete::kKeep:
          break;
        case OnDelete::kRefuse:
          holders_.push_back({&rule, from.id(), target});
          break;
        case OnDelete::kCascade:
          Add(from.id());
          break;
        case OnDelete::kSetNull:
        case OnDelete::kLast:
          CheckKernel(Put(LocationOf(rule, from), Null{}));
          break;
      }
    }
  }

  void Fetch(std::vector<Object> const& objects) const {
    std::vector<ObjectId> ids;
    for (Object const& each : objects) ids.push_back(each.id());
    FetchObjects(transaction_, ids);
  }

  // One that stays is written, so that of two transactions that each take away the last but one
  // reference only one commits.
  void ReleaseTarget(ObjectId target) {
    if (found_.contains(target)) return;
    auto const object = Object::Find(transaction_, target);
    TablePtr const table = object ? object->table() : nullptr;
    if (table == nullptr) return;
    if (!IsCounted(target, *table)) return Add(target);
    Touch(transaction_, *object);
  }

  bool IsCounted(ObjectId target, Table const& table) const {
    for (ReferenceRule const& rule : rules_.references()) {
      if (rule.rule != OnDelete::kLast || !rule.Concerns(table)) continue;
      if (HasReferrer(transaction_, *rule.table, rule.column, target)) return true;
    }
    return false;
  }

  [[noreturn]] void Refuse(Holder const& holder) const {
    throw Error(SAGLEME_OBJECT_REFERENCED,
                "Object " + std::to_string(holder.to.value) + " cannot be deleted: object " +
                    std::to_string(holder.from.value) + " refers to it in column " +
                    ToUtf8(holder.rule->column.name) + " of " + ToUtf8(holder.rule->table->name) +
                    ", whose rule refuses. Delete that object first, or let it refer to another.");
  }

  Rules const& rules_;
  Transaction& transaction_;
  std::set<ObjectId> found_;  // those that go, or are gone
  std::deque<ObjectId> waiting_;
  std::vector<Holder> holders_;
};

std::uint64_t DeleteAll(Rules const& rules, Transaction& transaction,
                        std::span<ObjectId const> ids) {
  Savepoint whole(static_cast<RawTransaction&>(transaction));
  std::uint64_t const count = Deletion(rules, transaction).Run(ids);
  whole.Release();
  return count;
}

// Whether an object has rules to follow; most tables of a database have none.
bool Concerns(Rules const& rules, Table const& table) {
  for (ReferenceRule const& rule : rules.references()) {
    if (rule.Concerns(table)) return true;
    if (rule.rule == OnDelete::kLast && table.IsA(*rule.table)) return true;
  }
  return false;
}

}  // namespace

std::vector<ObjectId> CountedTargets(Rules const& rules, Object const& object, Table const& table,
                                     std::function<bool(Column const&)> const& goes) {
  std::vector<ObjectId> targets;
  for (ReferenceRule const& rule : rules.references()) {
    if (rule.rule != OnDelete::kLast || !table.IsA(*rule.table) || !goes(rule.column)) continue;
    ObjectId target;
    auto const status = Get(LocationOf(rule, object), target);
    if (status != LORV_STATUS_NULL) CheckKernel(status);
    if (target.value != 0) targets.push_back(target);
  }
  return targets;
}

void ReleaseTargets(Transaction& transaction, std::span<ObjectId const> targets) {
  if (targets.empty() || transaction.rules() == nullptr) return;
  std::set<ObjectId> const each(targets.begin(), targets.end());
  Deletion(*transaction.rules(), transaction).Release(std::vector(each.begin(), each.end()));
}

void DeleteByRules(Rules const& rules, Transaction& transaction, ObjectId id) {
  auto const object = rules.references().empty() ? std::nullopt : Object::Find(transaction, id);
  TablePtr const table = object ? object->table() : nullptr;
  if (table != nullptr && Concerns(rules, *table)) {
    DeleteAll(rules, transaction, {&id, 1});
  } else {
    CheckKernel(lorv_context_delete(transaction.context(), id.value, 0));
  }
}

void PutReference(Rules const& rules, Transaction& transaction, ColumnLocation const& at,
                  std::u16string_view setspec, Column const& column, ObjectId value) {
  auto const put = [&] { CheckKernel(value.value == 0 ? Put(at, Null{}) : Put(at, value)); };
  ReferenceRule const* const rule = rules.Find(setspec, column.name);
  if (rule == nullptr) return put();
  Savepoint whole(static_cast<RawTransaction&>(transaction));
  ObjectId old;
  if (rule->rule == OnDelete::kLast) {
    auto const status = Get(at, old);
    if (status != LORV_STATUS_NULL) CheckKernel(status);
  }
  auto const target = value == old ? std::nullopt : Object::Find(transaction, value);
  if (target) Touch(transaction, *target);
  put();
  if (old.value != 0 && old != value) Deletion(rules, transaction).Release({&old, 1});
  whole.Release();
}

}  // namespace detail

std::uint64_t DeleteObjects(Transaction& transaction, std::span<ObjectId const> ids) {
  detail::Rules const* const rules = transaction.rules();
  if (rules != nullptr) return detail::DeleteAll(*rules, transaction, ids);
  Savepoint whole(static_cast<RawTransaction&>(transaction));
  std::set<ObjectId> const each(ids.begin(), ids.end());
  for (ObjectId const id : each) {
    detail::CheckKernel(lorv_context_delete(transaction.context(), id.value, 0));
  }
  whole.Release();
  return each.size();
}

}  // namespace sagleme
