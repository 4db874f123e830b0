#include <fmt/format.h>

#include "commands/commands.h"
#include "commands/objects.h"

namespace tool {
namespace {

class Get : public Command {
 public:
  std::string name() const override { return "get"; }
  std::string summary() const override { return "Shows one object with all its properties"; }
  std::vector<Example> examples() const override {
    return {{"get shop 1042", "the object with the id 1042"},
            {"get shop 1042 --follow Customer --follow Customer.Country",
             "with the objects that its references lead to"}};
  }
  void Declare(CLI::App& app) override {
    app.add_option("ID", id_, "The object's id")->required()->type_name("");
    app.add_option("--follow", follow_,
                   "A reference to follow; again for more, with dots for deeper")
        ->allow_extra_args(false)
        ->type_name("COLUMN");
  }
  bool lists() const override { return true; }
  Exit Run(Session& session, Output& output) override;

 private:
  std::uint64_t id_ = 0;
  std::vector<std::string> follow_;
};

Exit Get::Run(Session& session, Output& output) {
  session.Read([&](sagleme::Transaction& transaction) {
    auto const object = sagleme::Object::Find(transaction, {id_});
    if (!object) throw Failure(Exit::kProblem, fmt::format("there is no object {}", id_));
    ObjectProperties(*object, follow_).Print(output);
  });
  return Exit::kDone;
}

}  // namespace

std::unique_ptr<Command> MakeGet() { return std::make_unique<Get>(); }

}  // namespace tool
