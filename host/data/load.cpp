#include <fmt/format.h>
#include <lscoredb/host.h>

#include <filesystem>
#include <nlohmann/json.hpp>
#include <sagleme/counts.hpp>
#include <sagleme/host/dump.hpp>
#include <sagleme/schema_plan.hpp>

#include "text/json_value.h"

namespace sagleme {
namespace {

using Json = nlohmann::json;

// From here on the kernel does not come near identities that callers choose.
constexpr std::uint64_t kFarIdentities = std::uint64_t{1} << 61;

// A directory that is removed with the object unless it was given its final name.
class Scaffold {
 public:
  explicit Scaffold(std::string place) : place_(std::move(place)), path_(place_ + ".loading") {
    std::error_code ignored;
    if (std::filesystem::exists(place_) && !std::filesystem::is_empty(place_, ignored)) {
      throw Failure(Failure::Kind::kRefused, fmt::format("{} already exists", place_),
                    "Name a directory that does not exist.");
    }
    std::filesystem::remove_all(path_);  // of a load that was cut off
  }
  ~Scaffold() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  Scaffold(Scaffold const&) = delete;
  Scaffold& operator=(Scaffold const&) = delete;

  std::string const& path() const { return path_; }
  void Finish() {
    std::filesystem::remove(place_);
    std::filesystem::rename(path_, place_);
  }

 private:
  std::string place_;
  std::string path_;
};

// The kernel keeps its own identities above those of the dump, the catalogue's included: every
// object comes back with the identity that it had, which may be known outside of the database.
void LeaveIdentities(std::string const& directory, std::uint64_t first) {
  lscoredb* kernel = nullptr;
  detail::CheckKernel(lscoredb_open(directory.c_str(), nullptr, &kernel));
  auto const raised = lscoredb_raise_ids(kernel, first);
  detail::CheckKernel(lscoredb_close(kernel));
  detail::CheckKernel(raised);
}

class Loader {
 public:
  Loader(std::istream& input, std::string const& source, TransferReport const& report)
      : input_(input), source_(source), report_(report) {}

  std::uint64_t Run(std::string const& directory) {
    ReadAll();
    LeaveIdentities(directory, highest_ + 1);
    auto const database = Database::Create(directory);
    Context const context(database);
    Transaction transaction(context);
    ApplyPlan(transaction, CompareSchemas(ReadSchema(transaction, false), schema_));
    WriteObjects(transaction);
    transaction.Commit();
    return lines_.size();
  }

 private:
  [[noreturn]] void Refuse(std::size_t line, std::string const& what) const {
    throw Failure(Failure::Kind::kBadData, fmt::format("{}:{}: {}", source_, line, what),
                  "No database was created.");
  }

  void ReadAll() {
    std::string line;
    if (!std::getline(input_, line)) Refuse(1, "the dump is empty");
    schema_ = ParseSchema(line, source_);
    ValidateSchema(schema_, source_);
    while (std::getline(input_, line)) lines_.push_back(std::move(line));
    std::string const end = TakeEnd();
    std::vector<std::uint64_t> by_table(schema_.tables.size());
    for (std::size_t i = 0; i < lines_.size(); ++i) {
      Json const object = ParseLine(i);
      auto const id = object["id"].get<std::uint64_t>();
      if (id < kFarIdentities) highest_ = std::max(highest_, id);
      ++by_table[object["t"].get<std::size_t>()];
    }
    if (Json::parse(end, nullptr, false) != EndOf(lines_.size(), by_table)) {
      Refuse(lines_.size() + 2, "the dump is not whole: its last line counts other objects");
    }
  }

  static Json EndOf(std::uint64_t objects, std::vector<std::uint64_t> const& by_table) {
    return {{"end", {{"objects", objects}, {"tables", by_table}}}};
  }

  // The line behind the objects. A dump that was cut has none, wherever the cut is.
  std::string TakeEnd() {
    if (lines_.empty() || !lines_.back().starts_with("{\"end\":")) {
      Refuse(lines_.size() + 2,
             "the dump is cut: the last line, which counts the objects, is missing");
    }
    std::string end = std::move(lines_.back());
    lines_.pop_back();
    return end;
  }

  Json ParseLine(std::size_t i) const {
    try {
      Json json = Json::parse(lines_[i]);
      if (json.is_object() && json.contains("id") && json["id"].is_number_unsigned() &&
          json.contains("t") && json["t"].is_number_unsigned() &&
          json["t"].get<std::size_t>() < schema_.tables.size() && json.contains("v") &&
          json["v"].is_array()) {
        return json;
      }
    } catch (Json::parse_error const&) {
    }
    Refuse(i + 2, "not an object of the dump");
  }

  void WriteObjects(Transaction& transaction) {
    std::vector<TablePtr> tables;
    for (TableDoc const& table : schema_.tables) tables.push_back(transaction.table(table.name));
    for (std::size_t i = 0; i < lines_.size(); ++i) {
      Json const json = ParseLine(i);
      try {
        WriteObject(transaction, *tables[json["t"].get<std::size_t>()], json);
      } catch (BadValue const& error) {
        Refuse(i + 2, error.what());
      } catch (Error const& error) {
        Refuse(i + 2, error.what());
      }
      if (report_) report_({i + 1, i + 1, lines_.size()});
    }
  }

  static void WriteObject(Transaction& transaction, Table const& table, Json const& json) {
    auto const columns = UserColumns(table);
    Json const& values = json["v"];
    if (values.size() != columns.size())
      throw BadValue("the number of values differs from the number of columns");
    auto object = Object::CreateWithId(transaction, table, {json["id"].get<std::uint64_t>()});
    for (std::size_t i = 0; i < columns.size(); ++i) {
      if (values[i].is_null()) continue;
      // A reference may lead to an object of a later line.
      detail::PutValue(
          {transaction.context(), object.id().value, table.layout, columns[i]->ordinal},
          columns[i]->type, ParseJsonValue(columns[i]->type, values[i]));
    }
  }

  std::istream& input_;
  std::string source_;
  TransferReport const& report_;
  SchemaDoc schema_;
  std::vector<std::string> lines_;
  std::uint64_t highest_ = 0;
};

}  // namespace

std::uint64_t Load(std::string const& directory, std::istream& input, std::string const& source,
                   TransferReport const& report) {
  Scaffold scaffold(directory);
  std::uint64_t const count = Loader(input, source, report).Run(scaffold.path());
  scaffold.Finish();
  return count;
}

}  // namespace sagleme
