// Changes of columns in batches.

#include <algorithm>
#include <sagleme/column_changes.hpp>
#include <thread>

#include "columns/prepared.h"
#include "columns/requests.h"

namespace sagleme {
namespace {

constexpr std::size_t kCollected = 1000000;

// What a change needs to be prepared.
struct Preparation {
  ColumnSpec spec;                      // of the column afterwards
  columns::Wanted wanted;               // the same
  std::vector<std::u16string> holders;  // tables that will declare it anew; none: nothing to do
};

using Prepare = std::function<Preparation(Transaction&)>;
using Finish = std::function<void(Transaction&)>;

ColumnSpec SpecOf(Column const& column) {
  return {column.name, column.type, column.nullable, column.target};
}

bool IsPrepared(Table const& holder, ColumnSpec const& spec) {
  Column const* const column = columns::FindPrepared(holder, spec.name);
  return column != nullptr && column->type == spec.type && column->nullable == spec.nullable &&
         column->target == spec.target;
}

void DropPrepared(Transaction& transaction, Table const& table, std::u16string const& column) {
  if (columns::FindPrepared(table, column) == nullptr) return;
  DropColumn(transaction, table.name, columns::PreparedName(column));
}

class Job {
 public:
  Job(Context const& context, ColumnChangeOptions const& options, Prepare prepare, Finish finish)
      : context_(context),
        options_(options),
        prepare_(std::move(prepare)),
        finish_(std::move(finish)) {}

  bool Run() {
    Attempt([this](Transaction& transaction) { AddColumns(transaction); });
    for (std::uint32_t attempt = 1;; ++attempt) {
      if (!FillAll()) return false;
      try {
        Transaction transaction(context_);
        finish_(transaction);
        transaction.Commit();
        return true;
      } catch (Error const& error) {
        if (error.status() != LSCOREDB_CONFLICT || attempt >= options_.attempts) throw;
        ++progress_.conflicts;
      }
    }
  }

 private:
  // Makes the hidden columns that are not there yet.
  void AddColumns(Transaction& transaction) {
    preparation_ = prepare_(transaction);
    ColumnSpec hidden = preparation_.spec;
    hidden.name = columns::PreparedName(hidden.name);
    for (std::u16string const& name : preparation_.holders) {
      TablePtr const holder = transaction.table(name);
      if (IsPrepared(*holder, preparation_.spec)) continue;
      AbandonColumnChange(transaction, name, preparation_.spec.name);
      sagleme::AddColumns(transaction, name, {hidden});
    }
  }

  // Until so little is left that the last transaction can take it along.
  bool FillAll() {
    std::size_t const batch = std::max(options_.batch, 1u);
    for (;;) {
      std::vector<ObjectId> left = Collect();
      progress_.total = progress_.done + left.size();
      if (left.size() <= batch) return true;
      while (!left.empty()) {
        std::size_t const size = std::min(batch, left.size());
        Attempt([&](Transaction& transaction) {
          Fill(transaction, {left.end() - static_cast<std::ptrdiff_t>(size), left.end()});
        });
        left.resize(left.size() - size);
        progress_.done += size;
        if (options_.report && !options_.report(progress_)) return Abandon();
        std::this_thread::sleep_for(options_.pause);
      }
    }
  }

  bool Abandon() {
    Attempt([this](Transaction& transaction) {
      for (std::u16string const& name : preparation_.holders) {
        DropPrepared(transaction, *transaction.table(name), preparation_.spec.name);
      }
    });
    return false;
  }

  // Objects whose hidden value is not yet what the old one becomes.
  std::vector<ObjectId> Collect() {
    Transaction transaction(context_, Access::kReadOnly);
    std::vector<ObjectId> found;
    for (std::u16string const& name : preparation_.holders) {
      for (Object& object : Range::Subtree(transaction, *transaction.table(name))) {
        if (found.size() == kCollected) return found;
        ReadScope const scope(transaction.context());
        if (Update(transaction, object, false)) found.push_back(object.id());
      }
    }
    return found;
  }

  void Fill(Transaction& transaction, std::span<ObjectId const> batch) const {
    for (ObjectId const id : batch) {
      if (auto object = Object::Find(transaction, id)) Update(transaction, *object, true);
    }
  }

  // Whether the hidden value differs, and then writes it on request.
  bool Update(Transaction& transaction, Object& object, bool write) const {
    TablePtr const table = object.table();
    if (table == nullptr) return false;
    Column const* const from = table->FindColumn(preparation_.spec.name);
    Column const* const to = table->FindColumn(columns::PreparedName(preparation_.spec.name));
    if (from == nullptr || to == nullptr) return false;
    columns::Converter const convert(transaction, *from, preparation_.wanted);
    Value const value = convert(object.Get(*table, *from)).value;
    if (columns::SameValue(object.Get(*table, *to), value)) return false;
    if (write) columns::PutConverted(transaction, object, *table, *to, value);
    return true;
  }

  template <typename Work>
  void Attempt(Work&& work) {
    for (std::uint32_t attempt = 1;; ++attempt) {
      try {
        Transaction transaction(context_);
        work(transaction);
        transaction.Commit();
        return;
      } catch (Error const& error) {
        if (error.status() != LSCOREDB_CONFLICT || attempt >= options_.attempts) throw;
        ++progress_.conflicts;
        std::this_thread::yield();
      }
    }
  }

  Context const& context_;
  ColumnChangeOptions const& options_;
  Prepare prepare_;
  Finish finish_;
  Preparation preparation_;
  ColumnChangeProgress progress_;
};

}  // namespace

bool RunPullUpColumn(Context const& context, Text const& table, Text const& column,
                     Text const& base, ColumnChangeOptions const& options) {
  auto const prepare = [&](Transaction& transaction) {
    columns::PullUp const request = columns::RequirePullUp(transaction, table, column, base);
    Preparation made{SpecOf(*request.column), columns::WantedOf(*request.column), {}};
    if (!request.merged.empty()) made.holders.push_back(base);
    return made;
  };
  auto const finish = [&](Transaction& transaction) {
    PullUpColumn(transaction, table, column, base);
  };
  return Job(context, options, prepare, finish).Run();
}

bool RunPushDownColumn(Context const& context, Text const& table, Text const& column,
                       std::span<Text const> tables, ColumnChangeOptions const& options) {
  auto const prepare = [&](Transaction& transaction) {
    if (options.loss == Loss::kRefuse) RequireNoneLost(transaction, table, column, tables);
    columns::PushDown const request = columns::RequirePushDown(transaction, table, column, tables);
    Preparation made{SpecOf(*request.column), columns::WantedOf(*request.column), {}};
    for (std::size_t i = 1; i < tables.size(); ++i) made.holders.push_back(tables[i]);
    return made;
  };
  auto const finish = [&](Transaction& transaction) {
    PushDownColumn(transaction, table, column, tables, options.loss);
  };
  return Job(context, options, prepare, finish).Run();
}

bool RunChangeColumnType(Context const& context, Text const& table, ColumnSpec const& column,
                         ColumnChangeOptions const& options) {
  auto const prepare = [&](Transaction& transaction) {
    columns::Retype const request = columns::RequireRetype(transaction, table, column);
    if (options.loss == Loss::kRefuse) RequireConvertible(transaction, table, column);
    Preparation made{column, request.wanted, {}};
    if (column.type != Type::kReference) made.spec.target = Text();
    if (!request.same_form) made.holders.push_back(table);
    return made;
  };
  auto const finish = [&](Transaction& transaction) {
    ChangeColumnType(transaction, table, column, options.loss);
  };
  return Job(context, options, prepare, finish).Run();
}

void AbandonColumnChange(Transaction& transaction, Text const& table, Text const& column) {
  TablePtr const top = transaction.table(table);
  std::vector<TablePtr> const children = transaction.Children(*top);
  DropPrepared(transaction, *top, column);
  for (TablePtr const& child : children) AbandonColumnChange(transaction, child->name, column);
}

}  // namespace sagleme
