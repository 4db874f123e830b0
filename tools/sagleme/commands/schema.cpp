#include <algorithm>
#include <sagleme/schema_document.hpp>

#include "commands/commands.h"
#include "query/names.h"
#ifdef SAGLEME_TOOL_SQL
#include "sql/definition.h"
#endif

namespace tool {
namespace {

class Schema : public Command {
 public:
  std::string name() const override { return "schema"; }
  std::string summary() const override { return "Write the schema as a JSON document for apply"; }
  std::vector<Example> examples() const override {
    return {{"schema shop > shop.json", "the whole schema, to be edited and applied"},
            {"schema shop Customer", "one table and the tables derived from it"},
            {"schema shop --portable", "without ids, to be applied to another database"},
            {"schema shop --format sql", "statements for sagleme sql"}};
  }
  void Declare(CLI::App& app) override {
    app.add_option("TABLE", table_, "Write this table and the tables derived from it only")
        ->type_name("");
    app.add_flag("--portable", portable_, "Leave out the ids, which only this database knows");
    AddChoice(app, "--format", format_, {"json", "sql"},
              "json, for apply, or sql: statements that make the tables and indexes");
  }
  Exit Run(Session& session, Output& output) override;

 private:
  std::string table_;
  bool portable_ = false;
  std::string format_ = "json";
};

std::string AsSql([[maybe_unused]] sagleme::Transaction& transaction,
                  [[maybe_unused]] sagleme::TablePtr const& top) {
#ifdef SAGLEME_TOOL_SQL
  return sagleme::sql::DefinitionsOf(transaction, top);
#else
  throw Failure(Exit::kRefused, "this command was built without SQL",
                "Build it with SAGLEME_SQL=ON.");
#endif
}

// Keeps only the tables derived from one.
void KeepSubtree(sagleme::Transaction& transaction, sagleme::Table const& top,
                 sagleme::SchemaDoc& schema) {
  std::erase_if(schema.tables, [&](sagleme::TableDoc const& table) {
    return !transaction.table(sagleme::ToUtf16(table.name))->IsA(top);
  });
  schema.part = sagleme::ToUtf8(top.name);
}

Exit Schema::Run(Session& session, Output& output) {
  session.Read([&](sagleme::Transaction& transaction) {
    if (format_ == "sql") {
      output.Print(AsSql(transaction, table_.empty() ? nullptr : TableNamed(transaction, table_)));
      return;
    }
    sagleme::SchemaDoc schema = sagleme::ReadSchema(transaction, !portable_);
    if (!table_.empty()) KeepSubtree(transaction, *TableNamed(transaction, table_), schema);
    output.Print(sagleme::SchemaJson(schema));
  });
  return Exit::kDone;
}

}  // namespace

std::unique_ptr<Command> MakeSchema() { return std::make_unique<Schema>(); }

}  // namespace tool
