#include "commands/commands.h"
#include "commands/objects.h"
#include "query/names.h"

namespace tool {
namespace {

class Get : public Command {
 public:
  std::string name() const override { return "get"; }
  std::string summary() const override { return "Show one object with all its properties"; }
  std::vector<Example> examples() const override {
    return {{"get shop 1042", "the object with the id 1042"},
            {"get shop 1042 --follow Customer --follow Customer.Country",
             "with the objects that its references lead to"}};
  }
  void Declare(CLI::App& app) override {
    app.add_option("ID", id_, "The object's id")->required()->type_name("");
    app.add_option("--follow", follow_,
                   "Show the object behind a reference too. Can be repeated; dots lead on to "
                   "references of that object")
        ->allow_extra_args(false)
        ->type_name("COLUMN");
  }
  bool lists() const override { return true; }
  Exit Run(Session& session, Output& output) override;

 private:
  std::string id_;
  std::vector<std::string> follow_;
};

Exit Get::Run(Session& session, Output& output) {
  session.Read([&](sagleme::Transaction& transaction) {
    ObjectProperties(ObjectNamed(transaction, id_), follow_).Print(output);
  });
  return Exit::kDone;
}

}  // namespace

std::unique_ptr<Command> MakeGet() { return std::make_unique<Get>(); }

}  // namespace tool
