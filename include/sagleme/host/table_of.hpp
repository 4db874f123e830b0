#ifndef SAGLEME_HOST_TABLE_OF_HPP
#define SAGLEME_HOST_TABLE_OF_HPP

// Mapped structs (<sagleme/host/mapping.hpp>) in a transaction.
//
//   sagleme::DefineTables<Article>(transaction);    // creates it, or adds what it lacks
//   sagleme::TableOf<Article> const articles(transaction);
//   sagleme::Object const chair = articles.Insert({"Chair", 40});
//   for (auto const& [object, article] : articles.Where(&Article::title, "Chair")) ...
//
// A TableOf resolves its columns once, and is valid until the schema changes or the transaction
// ends. Structs are copies: what changes in one reaches the database by Write.

#include <algorithm>
#include <iterator>
#include <optional>
#include <sagleme/host/mapping.hpp>
#include <sagleme/host/range.hpp>
#include <sagleme/host/savepoint.hpp>
#include <tuple>
#include <utility>
#include <vector>

namespace sagleme {

namespace detail {

// A member with its column.
template <typename Struct, typename M>
class BoundMember {
 public:
  BoundMember(Table const& table, MemberMapping<Struct, M> const& mapped)
      : mapped_(mapped), property_(table, Fitting(table, mapped).name) {}

  void Read(Object const& object, Struct& out) const {
    out.*mapped_.member = Storage<M>::Restore(property_.Get(object), mapped_.column);
  }
  void Write(Object const& object, Struct const& value) const {
    if (auto const stored = Storage<M>::Store(value.*mapped_.member)) {
      property_.Set(object, *stored);
    } else {
      property_.Clear(object);
    }
  }

 private:
  static Column const& Fitting(Table const& table, MemberMapping<Struct, M> const& mapped);

  MemberMapping<Struct, M> mapped_;
  Property<typename Storage<M>::Stored> property_;
};

template <typename Struct, typename M>
Column const& BoundMember<Struct, M>::Fitting(Table const& table,
                                              MemberMapping<Struct, M> const& mapped) {
  Column const& column = table.GetColumn(mapped.column);
  RequireFit<M>(table, column);
  return column;
}

template <typename Part>
auto Bind(Table const&, Part const&) {
  return std::tuple<>();
}
template <typename Struct, typename M>
auto Bind(Table const& table, MemberMapping<Struct, M> const& part) {
  return std::tuple(BoundMember<Struct, M>(table, part));
}
template <typename T>
auto BindMembers(Table const& table) {
  if constexpr (std::is_void_v<T>) {
    return std::tuple<>();
  } else {
    return std::apply(
        [&](auto const&... parts) {
          return std::tuple_cat(BindMembers<MappedBase<T>>(table), Bind(table, parts)...);
        },
        mapping<T>.parts);
  }
}

// The column of a member of T or of a struct that it derives from.
template <typename T, typename Struct, typename M>
std::string_view ColumnOf(M Struct::*member) {
  std::string_view column;
  if constexpr (!std::is_void_v<MappedBase<T>>) {
    column = ColumnOf<MappedBase<T>>(member);
  }
  VisitOwnMembers<T>([&]<typename Owner, typename Other>(MemberMapping<Owner, Other> const& each) {
    if constexpr (std::is_same_v<Owner, Struct> && std::is_same_v<Other, M>) {
      if (each.member == member) column = each.column;
    }
  });
  return column;
}

template <typename M>
Value ToValue(M const& value) {
  auto stored = Storage<M>::Store(value);
  return stored ? Value(*std::move(stored)) : Value(Null{});
}

// What a TableOf and its ranges share.
template <typename T>
struct MappedTable {
  explicit MappedTable(Transaction& in)
      : transaction(in), table(in.table(mapping<T>.table)), members(BindMembers<T>(*table)) {}

  T Read(Object const& object) const {
    T value{};
    std::apply([&](auto const&... each) { (each.Read(object, value), ...); }, members);
    return value;
  }
  void Write(Object const& object, T const& value) const {
    std::apply([&](auto const&... each) { (each.Write(object, value), ...); }, members);
  }

  Transaction& transaction;
  TablePtr table;
  decltype(BindMembers<T>(std::declval<Table const&>())) members;
};

}  // namespace detail

// An object with its values as read.
template <typename T>
struct Entry {
  Object object;
  T value;
};

// A range of objects read as T, for one loop.
template <Mapped T>
class Entries {
 public:
  class iterator {
   public:
    using iterator_category = std::input_iterator_tag;
    using value_type = Entry<T>;
    using difference_type = std::ptrdiff_t;
    using pointer = Entry<T>*;
    using reference = Entry<T>&;

    iterator() = default;
    explicit iterator(Entries* entries) : entries_(entries), current_(entries->Next()) {}
    Entry<T>& operator*() { return *current_; }
    Entry<T>* operator->() { return &*current_; }
    iterator& operator++() {
      current_ = entries_->Next();
      return *this;
    }
    void operator++(int) { ++*this; }
    bool operator==(std::default_sentinel_t) const { return !current_.has_value(); }

   private:
    Entries* entries_ = nullptr;
    std::optional<Entry<T>> current_;
  };

  // Nothing at the end.
  std::optional<Entry<T>> Next() {
    while (std::optional<Object> object = range_.Next()) {
      if (filtered_ && !object->setspec().starts_with(mapped_->table->setspec)) continue;
      return Entry<T>{*object, mapped_->Read(*object)};
    }
    return std::nullopt;
  }
  iterator begin() { return iterator(this); }
  std::default_sentinel_t end() const { return {}; }

 private:
  template <Mapped>
  friend class TableOf;
  using Shared = std::shared_ptr<detail::MappedTable<T> const>;

  Entries(Shared mapped, Range range, bool filtered)
      : mapped_(std::move(mapped)), range_(std::move(range)), filtered_(filtered) {}

  Shared mapped_;
  Range range_;
  bool filtered_;  // the range holds objects of other tables too
};

template <Mapped T>
class TableOf {
 public:
  // SAGLEME_TABLE_NOT_FOUND, SAGLEME_NO_SUCH_COLUMN or LSCOREDB_WRONG_TYPE if the database does not
  // match the mapping.
  explicit TableOf(Transaction& transaction)
      : mapped_(std::make_shared<detail::MappedTable<T> const>(transaction)) {}

  Table const& table() const { return *mapped_->table; }

  // Creates an object of the struct's table. Columns that the struct does not map have their
  // defaults. SAGLEME_ABSTRACT_TABLE as for Object::Create.
  Object Insert(T const& value) const;
  // REQUIRES: an object of the table or of one derived from it.
  T Read(Object const& object) const { return mapped_->Read(object); }
  // Returns nothing if the table and its descendants have no such object.
  std::optional<T> Find(ObjectId id) const;
  std::optional<T> Find(Ref<T> const& reference) const { return Find(reference.id); }
  // Writes all members, or none if one is refused. REQUIRES: as for Read.
  void Write(Object const& object, T const& value) const;

  // The objects of the table and of its descendants; with Only, of the table alone.
  Entries<T> All() const { return Made(Range::Subtree(transaction(), table())); }
  Entries<T> Only() const { return Made(Range::Only(transaction(), table())); }
  // The objects of an index with these values in its first columns, in its order; all if no values
  // are given.
  Entries<T> Matching(TextView const& index, std::vector<Value> const& values = {},
                      Direction direction = Direction::kForward) const;
  // The objects of an index from the first key to the last, both inclusive.
  Entries<T> Between(TextView const& index, std::vector<Value> const& first,
                     std::vector<Value> const& last,
                     Direction direction = Direction::kForward) const;
  // The objects whose member has this value, through an index that begins with its column;
  // SAGLEME_INDEX_NOT_FOUND if there is none.
  template <typename Struct, typename M>
  Entries<T> Where(M Struct::*member, std::type_identity_t<M> const& value) const;

 private:
  Transaction& transaction() const { return mapped_->transaction; }
  Entries<T> Made(Range range, bool filtered = false) const {
    return Entries<T>(mapped_, std::move(range), filtered);
  }
  bool HoldsOthers(Index const& index) const { return index.table != table().name; }
  Index Named(TextView const& index) const;
  Index BeginningWith(std::u16string const& column) const;

  std::shared_ptr<detail::MappedTable<T> const> mapped_;
};

// ---- bodies -------------------------------------------------------------------------------------

// The columns are written before the object enters the indexes: an entry would move with each.
template <Mapped T>
Object TableOf<T>::Insert(T const& value) const {
  std::uint64_t const context = transaction().context();
  std::uint64_t oid = 0;
  detail::RequireOwn(transaction(), table());
  detail::Rules const* const rules = transaction().rules();
  if (rules != nullptr) detail::RequireConcrete(*rules, table());
  detail::CheckKernel(lorv_context_insert(context, table().layout, &oid));
  Object made(transaction(), LS_OBJ_REF{oid, table().layout});
  try {
    if (rules != nullptr) detail::PutDefaults(*rules, made, table());
    mapped_->Write(made, value);
    detail::CheckKernel(
        lorv_context_put_setspec(context, oid, table().layout, table().setspec.c_str()));
  } catch (...) {
    lorv_context_delete(context, oid, table().layout);
    throw;
  }
  return made;
}

template <Mapped T>
std::optional<T> TableOf<T>::Find(ObjectId id) const {
  auto const object = Object::Find(transaction(), id);
  if (!object || !object->setspec().starts_with(table().setspec)) return std::nullopt;
  return Read(*object);
}

template <Mapped T>
void TableOf<T>::Write(Object const& object, T const& value) const {
  transaction().rules();  // what they require of the transaction outlives the savepoint
  Savepoint whole(static_cast<RawTransaction&>(transaction()));
  mapped_->Write(object, value);
  whole.Release();
}

template <Mapped T>
Index TableOf<T>::Named(TextView const& index) const {
  if (auto found = transaction().FindIndex(index)) return *std::move(found);
  throw Error(SAGLEME_INDEX_NOT_FOUND, "There is no index " + ToUtf8(index) + ".");
}

template <Mapped T>
Index TableOf<T>::BeginningWith(std::u16string const& column) const {
  TablePtr at = mapped_->table;
  while (at != nullptr) {
    for (Index const& index : at->indexes) {
      if (index.columns.front().name == column) return index;
    }
    at = at->base.empty() ? nullptr : transaction().Find(at->base);
  }
  throw Error(SAGLEME_INDEX_NOT_FOUND, "No index of table " + ToUtf8(table().name) +
                                           " begins with column " + ToUtf8(column) + ".");
}

template <Mapped T>
Entries<T> TableOf<T>::Matching(TextView const& index, std::vector<Value> const& values,
                                Direction direction) const {
  Index const found = Named(index);
  return Made(Range::Matching(transaction(), found, values, direction), HoldsOthers(found));
}

template <Mapped T>
Entries<T> TableOf<T>::Between(TextView const& index, std::vector<Value> const& first,
                               std::vector<Value> const& last, Direction direction) const {
  Index const found = Named(index);
  return Made(Range::Between(transaction(), found, IndexKey(found, first), IndexKey(found, last),
                             direction),
              HoldsOthers(found));
}

template <Mapped T>
template <typename Struct, typename M>
Entries<T> TableOf<T>::Where(M Struct::*member, std::type_identity_t<M> const& value) const {
  std::string_view const column = detail::ColumnOf<T>(member);
  if (column.empty()) {
    throw Error(SAGLEME_NO_SUCH_COLUMN,
                "The mapping of table " + ToUtf8(table().name) + " does not name that member.");
  }
  Index const found = BeginningWith(ToUtf16(column));
  return Made(Range::Matching(transaction(), found, {detail::ToValue(value)}), HoldsOthers(found));
}

}  // namespace sagleme

#endif
