#include <fmt/format.h>
#include <lscoredb/host.h>
#include <lscoredb/watch.h>

#include <algorithm>
#include <limits>
#include <optional>
#include <sagleme/counts.hpp>
#include <sagleme/host/dump.hpp>
#include <sagleme/index_build.hpp>
#include <sagleme/schema_plan.hpp>

#include "data/dump_reader.h"
#include "data/new_ids.h"
#include "data/row_writer.h"
#include "data/scaffold.h"
#include "data/server_load.h"
#include "jobs/heeded.h"
#include "schema/annotation_changes.h"
#include "schema/refused_build.h"

namespace sagleme {
namespace {

// From here on the kernel does not come near identities that callers choose.
constexpr std::uint64_t kFarIdentities = std::uint64_t{1} << 61;
constexpr std::uint64_t kBatch = 20000;
constexpr std::uint64_t kRowMemory = std::uint64_t{16} << 20;  // rows are read once
// An index over as many objects is built in commits of bounded size before it is created.
constexpr std::uint64_t kManyObjects = 500000;

// The kernel keeps its own identities above those of the dump, the catalogue's included: every
// object comes back with the identity that it had, which may be known outside of the database.
void LeaveIdentities(std::string const& directory, std::uint64_t first) {
  lscoredb_options options{};
  options.size = sizeof options;
  options.log = LSCOREDB_SAME_LOG;
  lscoredb* kernel = nullptr;
  detail::CheckKernel(lscoredb_open(directory.c_str(), &options, &kernel));
  auto const raised = lscoredb_raise_ids(kernel, first);
  detail::CheckKernel(lscoredb_close(kernel));
  detail::CheckKernel(raised);
}

class Loader {
 public:
  Loader(DumpReader& dump, LoadOptions const& options) : dump_(dump), options_(options) {}

  LoadResult Run(std::string const& directory) {
    dump_.Survey([this](DumpedObject const& object) { Note(object.id); });
    new_ids_.Finish();
    LeaveIdentities(directory, highest_ + 1);
    // Nobody else sees the database before it is whole, and then it is brought onto the disk. A log
    // would write everything twice; the next opening gives it one.
    auto const database = Database::Create(
        directory, {}, {.no_sync = true, .row_memory = kRowMemory, .log = LSCOREDB_SAME_LOG});
    Context const context(database);
    // An index over objects that are there is sorted and appended, not grown entry by entry.
    ApplySchema(context, WithTablesAlone(dump_.schema()));
    WriteObjects(context);
    ApplyTheRest(context);
    return result_;
  }

 private:
  struct Target {
    TablePtr table;
    std::vector<Column const*> columns;
  };

  void Note(ObjectId id) {
    if (options_.new_ids) {
      new_ids_.Add(id.value);
      highest_ = new_ids_.size();
    } else if (id.value < kFarIdentities) {
      highest_ = std::max(highest_, id.value);
    }
    if (options_.report) options_.report({0, 0, 0});
  }

  // Annotations come last too: what they ask of writes is not asked of what was dumped.
  static SchemaDoc WithTablesAlone(SchemaDoc schema) {
    for (TableDoc& table : schema.tables) table.indexes.clear();
    return WithoutAnnotations(std::move(schema));
  }

  static void ApplySchema(Context const& context, SchemaDoc const& schema) {
    Transaction transaction(context);
    ApplyPlan(transaction, CompareAsTheyStand(ReadSchema(transaction, false), schema));
    transaction.Commit();
  }

  // Each in a transaction of its own.
  void ApplyTheRest(Context const& context) {
    for (Change const& change : MissingChanges(context)) {
      ReportAll();
      BuildLargeIndex(context, change);
      Transaction transaction(context);
      try {
        if (auto const* const annotation = std::get_if<change::Annotate>(&change)) {
          RestoreAnnotation(transaction, *annotation);
        } else {
          ApplyPlan(transaction, {change});
        }
      } catch (Error const& error) {
        if (error.status() == LSCOREDB_STOPPED) throw;
        RefuseIndex(transaction, change, error);
      }
      transaction.Commit();
    }
  }

  void ReportAll() const {
    if (options_.report) options_.report({result_.objects, result_.objects, dump_.objects()});
  }

  // The memory of a transaction that creates an index follows its size. The one batch is cut by the
  // size of its commits, so the build needs no record of its progress.
  void BuildLargeIndex(Context const& context, Change const& change) {
    IndexBuildOptions options;
    options.batch = std::numeric_limits<std::uint32_t>::max();
    options.report = [this](IndexBuildProgress const&) {
      ReportAll();
      return true;
    };
    for (IndexSpec const& index : LargeIndexes(context, change)) {
      try {
        PrepareIndex(context, index, options);
      } catch (Error const& error) {
        if (error.status() != LSCOREDB_DUPLICATE_KEY) throw;
        auto const duplicates = IndexBuildDuplicates(context, IndexBuilds(context).at(0).id, 1);
        RefuseObject(change, error, duplicates.at(0).object);
      }
    }
  }
  static std::vector<IndexSpec> LargeIndexes(Context const& context, Change const& change) {
    Transaction transaction(context, Access::kReadOnly);
    return IndexesToPrepare(transaction, {change}, kManyObjects);
  }

  static std::string Refusal(Change const& change, Error const& error) {
    return fmt::format("cannot {}: {}", DescribeChange(change), error.what());
  }
  // Reports the line of the object in the dump.
  [[noreturn]] void RefuseObject(Change const& change, Error const& error, ObjectId object) {
    dump_.RefuseObject(Refusal(change, error),
                       [&](ObjectId id) { return IdIn(id).value == object.value; });
  }
  // Reports the line of the object in the dump that repeats a key.
  [[noreturn]] void RefuseIndex(Transaction& transaction, Change const& change,
                                Error const& error) {
    auto const* const index = std::get_if<change::CreateIndex>(&change);
    bool const duplicate = index != nullptr && error.status() == LSCOREDB_DUPLICATE_KEY;
    auto const refused = duplicate ? FindRefusedBuild(transaction, *index) : std::nullopt;
    if (!refused) dump_.RefuseAll(Refusal(change, error));
    RefuseObject(change, error, refused->second);
  }

  Plan MissingChanges(Context const& context) const {
    Transaction transaction(context, Access::kReadOnly);
    return CompareAsTheyStand(ReadSchema(transaction, false), dump_.schema());
  }

  void WriteObjects(Context const& context) {
    for (bool more = true; more;) {
      Transaction transaction(context);
      more = WriteBatch(transaction);
      transaction.Commit();
    }
  }

  bool WriteBatch(Transaction& transaction) {
    std::vector<Target> targets;
    for (TableDoc const& each : dump_.schema().tables) {
      TablePtr const table = transaction.table(each.name);
      targets.push_back({table, UserColumns(*table)});
    }
    RowWriter writer(transaction);
    DumpedObject object;
    for (std::uint64_t i = 0; i < kBatch; ++i) {
      if (!dump_.Next(&object)) return false;
      try {
        WriteObject(writer, targets[object.table], object.id);
      } catch (BadValue const& error) {
        dump_.Refuse(error.what());
      } catch (Error const& error) {
        dump_.Refuse(error.what());
      }
      ++result_.objects;
      if (options_.report) options_.report({result_.objects, result_.objects, dump_.objects()});
    }
    return true;
  }

  void WriteObject(RowWriter& writer, Target const& target, ObjectId id) {
    std::vector<Column const*> const& columns = target.columns;
    std::span<RowValue const> const values = dump_.values();
    if (values.size() != columns.size()) {
      throw BadValue("the number of values differs from the number of columns");
    }
    writer.Begin(*target.table, IdIn(id));
    for (std::size_t i = 0; i < columns.size(); ++i) {
      if (values[i].kind != RowValue::Kind::kNull) Put(writer, *columns[i], values[i]);
    }
    writer.Finish();
  }

  // The identity in the database of an object of the dump.
  ObjectId IdIn(ObjectId id) const { return options_.new_ids ? new_ids_.Find(id.value) : id; }

  void Put(RowWriter& writer, Column const& column, RowValue const& value) {
    if (!options_.new_ids || column.type != Type::kReference) return writer.Put(column, value);
    auto const old = std::get<ObjectId>(ParseRowValue(column.type, value));
    ObjectId const target = new_ids_.Find(old.value);
    if (target.value == 0) {
      ++result_.dropped_references;
    } else {
      writer.Put(column, Value(target));
    }
  }

  DumpReader& dump_;
  LoadOptions const& options_;
  LoadResult result_;
  NewIds new_ids_;
  std::uint64_t highest_ = 0;
};

// With the control among what the report calls.
LoadOptions Controlled(LoadOptions options) {
  options.report = [heeded = jobs::Heeded(options.control),
                    report = options.report](TransferProgress const& progress) mutable {
    if (report) report(progress);
    heeded.At(progress.objects, kBatch);
  };
  options.control = nullptr;
  return options;
}

}  // namespace

LoadResult Load(std::string const& directory, std::istream& input, std::string const& source,
                LoadOptions const& options) {
  if (options.control != nullptr) return Load(directory, input, source, Controlled(options));
  if (IsServerUrl(directory)) {
    return LoadOntoServer(directory, options.report, [&](std::string const& here) {
      return Load(here, input, source, options);
    });
  }
  Scaffold scaffold(directory);
  DumpReader dump(input, source, scaffold.scratch());
  LoadResult const result = Loader(dump, options).Run(scaffold.database());
  scaffold.Finish();
  return result;
}

}  // namespace sagleme
