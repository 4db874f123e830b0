#include <fmt/format.h>
#include <lscoredb/watch.h>

#include <filesystem>

#include "base/interrupt.h"
#include "base/watch.h"
#include "commands/commands.h"
#include "output/progress.h"

namespace tool {
namespace {

class Copy : public Command {
 public:
  std::string name() const override { return "copy"; }
  std::string summary() const override { return "Copy the database while others write"; }
  std::vector<Example> examples() const override {
    return {{"copy shop /backup/shop", "the last committed state, as a database of its own"}};
  }
  void Declare(CLI::App& app) override {
    app.add_option("TARGET", target_, "The directory of the copy, which must not exist")
        ->required()
        ->type_name("");
  }
  Exit Run(Session& session, Output& output) override;

 private:
  std::string target_;
};

std::uint32_t CopyWatched(sagleme::Database const& database, std::string const& directory,
                          Output const& output) {
  Progress progress(output, "copying");
  Watch const watch(
      [&](std::uint64_t done, std::uint64_t total) { progress.UpdateShare(done, total); });
  return lscoredb_copy(database.handle(), directory.c_str());
}

// The copy grows beside its place and gets its name when it is whole.
Exit Copy::Run(Session& session, Output& output) {
  session.RequireNoTransaction("copy");
  std::error_code ignored;
  if (std::filesystem::exists(target_, ignored)) {
    throw Failure(Exit::kRefused, fmt::format("{} already exists", target_),
                  "Name a directory that does not exist.");
  }
  std::string const growing = target_ + ".copying";
  std::filesystem::remove_all(growing, ignored);  // of a copy that was cut off
  InterruptGuard const guard;                     // what Ctrl-C leaves is removed
  std::uint32_t const status = CopyWatched(session.database(), growing, output);
  if (status != 0) {
    std::string const refused = lscoredb_open_error();
    std::filesystem::remove_all(growing, ignored);
    if (status == LSCOREDB_STOPPED) throw Interrupted();
    throw Failure(Exit::kRefused,
                  fmt::format("cannot copy to {}: {}", target_,
                              refused.empty() ? lscoredb_status_text(status) : refused));
  }
  std::filesystem::rename(growing, target_);
  output.Note(fmt::format("copied to {}\n", target_));
  return Exit::kDone;
}

}  // namespace

std::unique_ptr<Command> MakeCopy() { return std::make_unique<Copy>(); }

}  // namespace tool
