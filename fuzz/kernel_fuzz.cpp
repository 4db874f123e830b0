// Sequences of kernel calls, in any order and with arguments that name nothing, or something else:
// contexts, objects, layouts, columns, indexes, iterators, key bytes. Each input has a database of
// its own. Afterwards what is committed must agree with itself.

#include <lscoredb/host.h>

#include <set>

#include "input.h"

using sagleme_fuzz::Input;
using sagleme_fuzz::Require;

namespace {

constexpr std::uint64_t kUntouched = 0xA5A5A5A5A5A5A5A5;
constexpr char16_t const* kSets[] = {u"a/", u"a/b/", u"c/", u"", u"a"};

void Check(std::uint32_t status) {
  Require(*lscoredb_status_text(status) != 0, "every status has a sentence");
}

// One input's database, and the names that were given out in it.
class World {
 public:
  explicit World(Input& input) : input_(input) {
    Require(lscoredb_open(nullptr, nullptr, &database_) == 0, "a database in memory opens");
    OpenContext();
    Check(lscoredb_begin(contexts_[0], LSCOREDB_READ_WRITE));
  }
  ~World() {
    for (std::uint64_t const context : contexts_) lscoredb_context_close(context);
    Require(lscoredb_close(database_) == 0, "a database without contexts closes");
  }
  World(World const&) = delete;
  World& operator=(World const&) = delete;

  void Step() {
    constexpr void (World::*kSteps[])() = {
        &World::OpenContext, &World::EndContext,   &World::Begin,      &World::Commit,
        &World::Rollback,    &World::Scope,        &World::MakeLayout, &World::AskLayout,
        &World::MakeIndex,   &World::DropOrAsk,    &World::Insert,     &World::Insert,
        &World::InsertWith,  &World::PutNumber,    &World::PutNumber,  &World::PutValue,
        &World::PutValue,    &World::GetNumber,    &World::GetValue,   &World::PutSetspec,
        &World::PutSetspec,  &World::DeleteOrMove, &World::OpenScan,   &World::OpenScan,
        &World::Next,        &World::Next,         &World::FreeScan,   &World::Statistics};
    (this->*kSteps[input_.Below(std::size(kSteps))])();
  }

  // Every entry of every index has its object, once.
  void CheckAll() {
    std::uint64_t context = 0;
    Require(lscoredb_context_open(database_, &context) == 0, "a context opens");
    contexts_.push_back(context);
    Require(lscoredb_begin(context, LSCOREDB_READ_ONLY_TRANSACTION) == 0, "a reader begins");
    alignas(8) constexpr std::uint8_t kWhole[8] = {0xC0};
    for (std::uint64_t const index : indexes_) {
      std::uint64_t scan = 0;
      std::uint32_t const status = lorv_context_create_iterator(
          context, index, LORV_ITERATOR_FORWARD, kWhole, kWhole, &scan);
      if (status == LORV_STATUS_NO_INDEX) continue;
      Require(status == 0, "an index can be scanned");
      std::set<std::uint64_t> seen;
      for (LORV_REFERENCE found{};;) {
        Require(lorv_iterator_next(scan, &found) == 0, "a scan goes on");
        if (found.oid == 0) break;
        std::uint64_t address = 0;
        Require(lorv_context_lookup(context, found.oid, &address) == 0, "an entry has its object");
        Require(address == found.layout, "an entry knows the layout of its object");
        Require(seen.insert(found.oid).second, "an object is in an index once");
      }
      Require(lorv_iterator_free(scan) == 0, "a scan ends");
    }
  }

 private:
  // One of the names, mostly, or any other number.
  template <typename Name>
  Name Any(std::vector<Name> const& names) {
    std::size_t const choice = input_.Below(8);
    if (choice == 7) return input_.Take<Name>();
    if (choice == 6 || names.empty()) return static_cast<Name>(choice);
    return names[input_.Below(names.size())];
  }
  std::uint64_t Context() { return Any(contexts_); }
  std::uint64_t Object() { return Any(objects_); }
  std::uint64_t Address() {
    return input_.Flag() ? 0 : Any(layouts_) | input_.Take<std::uint64_t>() << 16;
  }
  std::uint32_t Column() {
    return input_.Below(8) == 0 ? input_.Take<std::uint32_t>()
                                : static_cast<std::uint32_t>(input_.Below(6));
  }
  std::u16string Set() {
    return input_.Below(8) == 0 ? input_.Text(30) : kSets[input_.Below(std::size(kSets))];
  }
  std::vector<LORVI_COLUMN_DEFINITION> Columns() {
    std::vector<LORVI_COLUMN_DEFINITION> columns(input_.Below(5));
    for (LORVI_COLUMN_DEFINITION& column : columns) {
      column = {static_cast<std::uint8_t>(1 + input_.Below(10)), input_.Byte(),
                100 + input_.Below(8)};
    }
    columns.push_back({0, 0, 0});
    return columns;
  }
  std::vector<std::uint64_t> Key() {
    std::vector<std::uint8_t> bytes = input_.Bytes(60);
    bytes.insert(bytes.end(), 40, 0xC0);
    std::vector<std::uint64_t> words(bytes.size() / 8 + 1);
    std::memcpy(words.data(), bytes.data(), bytes.size());
    return words;
  }
  // Calls, and requires that an output is written on success alone.
  template <typename Call>
  bool Asked(Call&& call) {
    std::uint64_t out = kUntouched;
    std::uint32_t const status = call(&out);
    Check(status);
    Require(status == 0 || out == kUntouched, "a failure writes no output");
    return status == 0;
  }

  void OpenContext() {
    std::uint64_t context = 0;
    if (contexts_.size() > 4) return;
    Check(lscoredb_context_open(database_, &context));
    contexts_.push_back(context);
  }
  void EndContext() { Check(lscoredb_context_close(Context())); }
  void Begin() {
    Check(lscoredb_begin(Context(), input_.Below(8) == 0 ? input_.Take<std::uint32_t>() : 0));
  }
  void Commit() { Check(lscoredb_commit(Context())); }
  void Rollback() { Check(lscoredb_rollback(Context())); }
  void Scope() {
    Check(input_.Flag() ? lscoredb_read_scope_begin(Context())
                        : lscoredb_read_scope_end(Context()));
  }

  void MakeLayout() {
    auto const columns = Columns();
    std::uint16_t const base = input_.Flag() ? std::uint16_t{0} : Any(layouts_);
    std::uint16_t made = 0;
    std::uint32_t const status = lorvi_context_create_layout(
        Context(), 50 + input_.Below(4), base, columns.data(), input_.Below(16) == 0, &made);
    Check(status);
    if (status == 0) layouts_.push_back(made);
  }
  void AskLayout() {
    std::uint64_t const context = Context();
    LORVI_LAYOUT_INFO infos[2] = {};
    std::uint32_t count = static_cast<std::uint32_t>(input_.Below(3));
    Check(lorvi_context_get_layout_info(context, Any(layouts_), &infos[0]));
    LORVI_COLUMN_INFO column{};
    Check(lorvi_context_get_column_info(context, Any(layouts_), input_.Take<std::uint16_t>(),
                                        &column));
    Check(lorvi_context_get_layout_infos_by_token(context, 50 + input_.Below(4), &count, infos));
  }

  void MakeIndex() {
    auto const columns = Columns();
    std::u16string const set = Set();
    std::uint64_t made = 0;
    std::uint32_t const status =
        lorvi_context_create_index(Context(), 60 + input_.Below(4), set.c_str(), columns.data(),
                                   input_.Byte(), input_.Byte(), &made);
    Check(status);
    if (status == 0) indexes_.push_back(made);
  }
  void DropOrAsk() {
    std::uint64_t const context = Context();
    std::uint64_t const index = Any(indexes_);
    if (input_.Below(4) == 0) {
      Check(lorvi_context_drop_index(context, index));
      return;
    }
    char16_t const* set = nullptr;
    Check(lorvi_context_get_index_setspec(context, index, &set));
    LORVI_INDEX_INFO infos[2] = {};
    std::uint32_t count = static_cast<std::uint32_t>(input_.Below(3));
    Check(lorvi_context_get_index_infos_by_token(context, 60 + input_.Below(4), &count, infos));
  }

  void Insert() {
    std::uint64_t made = 0;
    std::uint64_t const context = Context();
    std::uint32_t const status = lorv_context_insert(context, Any(layouts_), &made);
    Check(status);
    if (status != 0) return;
    objects_.push_back(made);
    if (input_.Below(4) == 0) return;
    std::u16string const set = Set();
    Check(lorv_context_put_setspec(context, made, 0, set.c_str()));
  }
  void InsertWith() {
    std::uint64_t const chosen = Object();
    std::uint32_t const status = lorvi_context_insert_with_id(Context(), Any(layouts_), chosen);
    Check(status);
    if (status == 0) objects_.push_back(chosen);
  }

  void PutNumber() {
    std::uint64_t const context = Context();
    std::uint64_t const object = Object();
    std::uint64_t const address = Address();
    std::uint32_t const column = Column();
    auto const value = input_.Flag() ? input_.Below(4) : input_.Take<std::uint64_t>();
    switch (input_.Below(6)) {
      case 0:
        return Check(lorv_context_put_ulong(context, object, address, column, value));
      case 1:
        return Check(lorv_context_put_long(context, object, address, column,
                                           static_cast<std::int64_t>(value)));
      case 2:
        return Check(lorv_context_put_decimal(context, object, address, column,
                                              static_cast<std::int64_t>(value)));
      case 3:
        return Check(lorv_context_put_float(context, object, address, column,
                                            static_cast<float>(input_.Take<double>())));
      case 4:
        return Check(
            lorv_context_put_double(context, object, address, column, input_.Take<double>()));
      default:
        return Check(lorv_context_put_reference(context, object, address, column, Object(), value));
    }
  }
  void PutValue() {
    std::uint64_t const context = Context();
    std::uint64_t const object = Object();
    std::uint64_t const address = Address();
    std::uint32_t const column = Column();
    std::u16string const text = input_.Text(200);
    switch (input_.Below(4)) {
      case 0:
        return Check(lorv_context_put_default(context, object, address, column));
      case 1:
        return Check(lorv_context_put_binary(context, object, address, column, text.data(),
                                             text.size() * 2));
      default:
        return Check(lorv_context_put_string(context, object, address, column, text.c_str()));
    }
  }

  void GetNumber() {
    constexpr decltype(&lorv_context_get_ulong) kGets[] = {lorv_context_get_ulong,
                                                           lorvi_context_get_refid};
    std::uint64_t const context = Context();
    std::uint64_t const object = Object();
    std::uint64_t const address = Address();
    std::uint32_t const column = Column();
    for (auto const get : kGets) {
      Asked([&](std::uint64_t* out) { return get(context, object, address, column, out); });
    }
    std::int64_t number = 0;
    double real = 0;
    LORV_REFERENCE reference{};
    Check(lorv_context_get_long(context, object, address, column, &number));
    Check(lorv_context_get_double(context, object, address, column, &real));
    Check(lorv_context_get_reference(context, object, address, column, &reference));
    Asked([&](std::uint64_t* out) { return lorv_context_lookup(context, object, out); });
  }
  void GetValue() {
    std::uint64_t const context = Context();
    std::uint64_t const object = Object();
    LORV_STRING* text = nullptr;
    LORV_BINARY* bytes = nullptr;
    if (lorv_context_get_string(context, object, Address(), Column(), &text) == 0) {
      text->units[text->length] = 0;
    }
    Check(lorv_context_get_binary(context, object, Address(), Column(), &bytes));
    if (lorv_context_get_setspec(context, object, 0, &text) == 0) text->units[text->length] = 0;
  }

  void PutSetspec() {
    std::u16string const set = Set();
    Check(lorv_context_put_setspec(Context(), Object(), 0, set.c_str()));
  }
  void DeleteOrMove() {
    if (input_.Flag()) {
      Check(lorv_context_delete(Context(), Object(), Address()));
    } else {
      Check(lscoredb_move_object(Context(), Object(), Any(layouts_)));
    }
  }

  void OpenScan() {
    std::uint64_t const context = Context();
    std::uint64_t const index = Any(indexes_);
    std::uint32_t const flags = input_.Below(8) == 0 ? input_.Take<std::uint32_t>()
                                : input_.Flag()      ? LORV_ITERATOR_FORWARD
                                                     : LORV_ITERATOR_REVERSE;
    std::vector<std::uint64_t> const first = Key();
    std::vector<std::uint64_t> const last = Key();
    bool const opened = Asked([&](std::uint64_t* out) {
      std::uint32_t const status =
          lorv_context_create_iterator(context, index, flags, first.data(), last.data(), out);
      if (status == 0) scans_.push_back(*out);
      return status;
    });
    if (opened) Next();
  }
  void Next() {
    LORV_REFERENCE found{};
    Check(lorv_iterator_next(Any(scans_), &found));
  }
  void FreeScan() { Check(lorv_iterator_free(Any(scans_))); }

  void Statistics() {
    lscoredb_layout_statistics statistics[3];
    std::uint32_t count = static_cast<std::uint32_t>(input_.Below(4));
    Check(lscoredb_layout_stats(Context(), &count, statistics));
  }

  Input& input_;
  lscoredb* database_ = nullptr;
  std::vector<std::uint64_t> contexts_;
  std::vector<std::uint64_t> objects_;
  std::vector<std::uint64_t> indexes_;
  std::vector<std::uint64_t> scans_;
  std::vector<std::uint16_t> layouts_;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
  Input input(data, size);
  World world(input);
  while (!input.empty()) world.Step();
  world.CheckAll();
  return 0;
}
