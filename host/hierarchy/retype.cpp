#include "hierarchy/retype.h"

#include <fmt/format.h>

#include <algorithm>
#include <map>
#include <optional>
#include <sagleme/annotations.hpp>
#include <sagleme/hierarchy.hpp>
#include <sagleme/host/duplicates.hpp>
#include <utility>

#include "annotations/deletion.h"
#include "columns/convert.h"
#include "hierarchy/column_tokens.h"
#include "hierarchy/referrers.h"
#include "hierarchy/refused_key.h"

namespace sagleme {
namespace {

constexpr std::size_t kListed = 20;

using WriteValues = std::function<void(Object&)>;

[[noreturn]] void Refuse(std::string const& what) { throw Failure(Failure::Kind::kRefused, what); }

// How the columns of one table fare in another.
struct Fate {
  TablePtr from;
  Destination destination;
  ColumnPairs kept;
  std::vector<Column const*> lost;
  ColumnPairs relaxed;  // of those kept: a zero that was never written would become null

  bool Loses(std::u16string const& column) const {
    return std::any_of(lost.begin(), lost.end(),
                       [&](Column const* each) { return each->name == column; });
  }
};

class Retyping {
 public:
  Retyping(Transaction& transaction, std::span<ObjectId const> objects, Table const& to,
           RetypeOptions const& options, KnownReferrers* known = nullptr,
           WriteValues write = nullptr)
      : transaction_(transaction),
        to_(to),
        options_(options),
        known_(known),
        write_(std::move(write)) {
    detail::RequireOwn(transaction, to);
    if (to.system) {
      Refuse(fmt::format("table {} belongs to the catalogue itself and takes no objects",
                         ToUtf8(to.name)));
    }
    if (IsAbstract(transaction, to)) {
      Refuse(fmt::format("table {} is abstract and takes no objects", ToUtf8(to.name)));
    }
    for (ObjectId const id : objects) Add(id);
  }

  RetypePlan Plan() const {
    RetypePlan plan;
    plan.objects = objects_.size();
    plan.referrers = Referrers();
    std::map<Column const*, std::uint64_t> values;
    ForEachLost([&](Object const&, Column const& column) { ++values[&column]; });
    for (auto const& [name, fate] : fates_) {
      for (Column const* const column : fate.lost) {
        auto const found = values.find(column);
        if (found != values.end()) plan.lost.push_back({name, column->name, found->second});
      }
    }
    return plan;
  }

  std::uint64_t Run() {
    if (options_.loss == Loss::kRefuse) RequireNoneLost();
    if (options_.referring != Referring::kKeep) {
      SettleReferrers(transaction_, Referrers(), options_.referring,
                      fmt::format("the objects cannot become objects of {}", ToUtf8(to_.name)));
    }
    std::vector<ObjectId> const released = LostTargets();
    for (auto const& [id, fate] : objects_) Move(id, *fate);
    transaction_.Forget();
    detail::ReleaseTargets(transaction_, released);
    return objects_.size();
  }

 private:
  void Add(ObjectId id) {
    auto const object = Object::Find(transaction_, id);
    if (!object) {
      throw Error(LORV_STATUS_NO_OBJECT, fmt::format("There is no object {}.", id.value));
    }
    TablePtr const from = object->table();
    if (from == nullptr) Refuse(fmt::format("the table of object {} was dropped", id.value));
    if (from->system) Refuse(fmt::format("object {} belongs to the catalogue itself", id.value));
    if (from->id() == to_.id()) return;
    auto const [at, is_new] = fates_.try_emplace(from->name);
    if (is_new) at->second = FateOf(from);
    objects_.emplace(id.value, &at->second);
  }

  Fate FateOf(TablePtr const& from) const {
    Fate fate{from, {to_.layout, to_.setspec, {}}, {}, {}, {}};
    for (Column const& column : from->columns) {
      if (column.system()) continue;
      std::uint64_t const token = TokenOf(transaction_, *from, column);
      Column const* const shared = WithToken(token);
      Column const* const alike = shared == nullptr ? ByName(column) : nullptr;
      if (alike != nullptr) {
        fate.destination.copies.push_back({token, TokenOf(transaction_, to_, *alike)});
        if (!column.nullable && alike->nullable) fate.relaxed.emplace_back(&column, alike);
      }
      if (shared == nullptr && alike == nullptr) {
        fate.lost.push_back(&column);
      } else {
        fate.kept.emplace_back(&column, shared != nullptr ? shared : alike);
      }
    }
    return fate;
  }
  Column const* WithToken(std::uint64_t token) const {
    for (Column const& column : to_.columns) {
      if (!column.system() && TokenOf(transaction_, to_, column) == token) return &column;
    }
    return nullptr;
  }
  Column const* ByName(Column const& column) const {
    if (!options_.by_name) return nullptr;
    Column const* const alike = to_.FindColumn(column.name);
    return alike != nullptr && SameKind(column, *alike) ? alike : nullptr;
  }
  // Visits each value that is lost, with its object.
  template <typename Visit>
  void ForEachLost(Visit&& visit) const {
    for (auto const& [id, fate] : objects_) {
      if (fate->lost.empty()) continue;
      ReadScope const scope(transaction_.context());
      Object const object = *Object::Find(transaction_, {id});
      for (Column const* const column : fate->lost) {
        if (!IsNull(object.Get(*fate->from, *column))) visit(object, *column);
      }
    }
  }
  void RequireNoneLost() const {
    std::string text;
    std::size_t count = 0;
    ForEachLost([&](Object const& object, Column const& column) {
      if (++count > kListed) return;
      text += fmt::format("{}object {} has a value in column {} of {}", count == 1 ? ": " : ";\n  ",
                          object.id().value, ToUtf8(column.name),
                          ToUtf8(objects_.at(object.id().value)->from->name));
    });
    if (count == 0) return;
    if (count > kListed) text += fmt::format(";\n  and {} more values", count - kListed);
    throw Failure(Failure::Kind::kRefused,
                  fmt::format("values would be lost if the objects became objects of {}{}",
                              ToUtf8(to_.name), text),
                  "Clear these values first, or allow that they are lost.");
  }

  bool LosesTarget(Table const& target) const {
    if (to_.IsA(target)) return false;
    return std::any_of(fates_.begin(), fates_.end(),
                       [&](auto const& fate) { return fate.second.from->IsA(target); });
  }
  // What lost references under the rule last lead to.
  std::vector<ObjectId> LostTargets() const {
    std::vector<ObjectId> targets;
    detail::Rules const* const rules = transaction_.rules();
    if (rules == nullptr || rules->references().empty()) return targets;
    for (auto const& [id, fate] : objects_) {
      auto const lost = [fate](Column const& column) { return fate->Loses(column.name); };
      auto const more =
          detail::CountedTargets(*rules, *Object::Find(transaction_, {id}), *fate->from, lost);
      targets.insert(targets.end(), more.begin(), more.end());
    }
    return targets;
  }

  // An object that itself loses the referring column is no obstacle.
  std::vector<Referrer> Referrers() const {
    ReferrerQuery query;
    query.loses = [this](Table const& target) { return LosesTarget(target); };
    query.leaves = [this](ObjectId id) { return objects_.contains(id.value); };
    for (auto const& [id, fate] : objects_) query.objects.push_back({id});
    query.known = known_;
    if (objects_.empty()) return {};
    std::vector<Referrer> referrers = FindReferrers(transaction_, query);
    std::erase_if(referrers, [this](Referrer const& each) {
      auto const own = objects_.find(each.object.value);
      return own != objects_.end() && own->second->Loses(each.column);
    });
    return referrers;
  }

  void Move(std::uint64_t id, Fate const& fate) const {
    if (write_ || !fate.relaxed.empty()) return MoveAndWrite(id, fate);
    std::uint32_t const status = fate.destination.Take(transaction_, {id});
    if (status == LSCOREDB_DUPLICATE_KEY) RefuseDuplicate(id, fate);
    CheckMove(status);
  }
  void CheckMove(std::uint32_t status) const {
    if (status == LSCOREDB_SET_CLOSED) {
      throw Error(status, fmt::format("Table {} was moved or dropped and takes no more objects.",
                                      ToUtf8(to_.name)));
    }
    detail::CheckKernel(status);
  }
  std::vector<Value> ValuesOf(std::uint64_t id, Fate const& fate) const {
    std::vector<Value> values;
    if (fate.relaxed.empty()) return values;
    Object const object = *Object::Find(transaction_, {id});
    for (auto const& [column, alike] : fate.relaxed) {
      values.push_back(object.Get(*fate.from, *column));
    }
    return values;
  }
  // By way of no set at all, which no index covers.
  void MoveAndWrite(std::uint64_t id, Fate const& fate) const {
    std::vector<Value> const values = ValuesOf(id, fate);
    Destination nowhere = fate.destination;
    nowhere.setspec.clear();
    detail::CheckKernel(nowhere.Take(transaction_, {id}));
    Object object(transaction_, LS_OBJ_REF{id, to_.layout});
    for (std::size_t i = 0; i < values.size(); ++i) {
      columns::PutConverted(transaction_, object, to_, *fate.relaxed[i].second, values[i]);
    }
    if (write_) write_(object);
    std::uint32_t const status =
        lorv_context_put_setspec(transaction_.context(), id, to_.layout, to_.setspec.c_str());
    if (status == LSCOREDB_DUPLICATE_KEY) {
      ThrowDuplicate(id, DescribeDuplicate(transaction_, object, to_, {}));
    }
    CheckMove(status);
  }
  [[noreturn]] void RefuseDuplicate(std::uint64_t id, Fate const& fate) const {
    Object const object = *Object::Find(transaction_, {id});
    ThrowDuplicate(id, DescribeRefusedKey(transaction_, object, *fate.from, to_, fate.kept));
  }
  [[noreturn]] void ThrowDuplicate(std::uint64_t id, std::string const& key) const {
    throw Error(LSCOREDB_DUPLICATE_KEY, fmt::format("Object {} cannot become an object of {}: {}.",
                                                    id, ToUtf8(to_.name), key));
  }

  Transaction& transaction_;
  Table const& to_;
  RetypeOptions const& options_;
  KnownReferrers* known_;
  WriteValues write_;                     // none: values that were not kept are null or zero
  std::map<std::u16string, Fate> fates_;  // by the table that objects have now
  std::map<std::uint64_t, Fate const*> objects_;  // those that change
};

}  // namespace

RetypePlan PlanRetype(Transaction& transaction, std::span<ObjectId const> objects, Table const& to,
                      RetypeOptions const& options) {
  return Retyping(transaction, objects, to, options).Plan();
}

namespace {

std::uint64_t RunRetyping(Transaction& transaction, std::span<ObjectId const> objects,
                          Table const& to, RetypeOptions const& options, KnownReferrers* known,
                          WriteValues const& write = nullptr) {
  detail::Rules const* const rules = transaction.rules();
  if (rules != nullptr && !objects.empty()) detail::RequireConcrete(*rules, to);
  transaction.rules();  // what they require of the transaction outlives the savepoint
  Savepoint savepoint(transaction);
  std::uint64_t const changed = Retyping(transaction, objects, to, options, known, write).Run();
  savepoint.Release();
  return changed;
}

}  // namespace

std::uint64_t Retype(Transaction& transaction, std::span<ObjectId const> objects, Table const& to,
                     RetypeOptions const& options) {
  return RunRetyping(transaction, objects, to, options, nullptr);
}

std::uint64_t Retype(Transaction& transaction, std::span<ObjectId const> objects, Table const& to,
                     RetypeOptions const& options, WriteValues const& write) {
  return RunRetyping(transaction, objects, to, options, nullptr, write);
}

std::uint64_t RetypeInJob(Transaction& transaction, std::span<ObjectId const> objects,
                          Table const& to, RetypeOptions const& options, KnownReferrers& known) {
  return RunRetyping(transaction, objects, to, options, &known);
}

}  // namespace sagleme
