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
    return {{"copy shop /backup/shop", "the last committed state, as a database of its own"},
            {"copy shop postgresql://app@db1/shop", "the same on a PostgreSQL server"}};
  }
  void Declare(CLI::App& app) override {
    app.add_option("TARGET", target_,
                   "The directory of the copy, which must not exist, or a server's URL")
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

[[noreturn]] void Refuse(std::string const& target, std::uint32_t status) {
  std::string const refused = lscoredb_open_error();
  if (!refused.empty() && sagleme::IsServerUrl(target)) {
    throw Failure(Exit::kRefused, "cannot copy to " + refused);
  }
  throw Failure(Exit::kRefused,
                fmt::format("cannot copy to {}: {}", sagleme::ShownPlace(target),
                            refused.empty() ? lscoredb_status_text(status) : refused));
}

// Nobody takes a copy on a server for a database before it is whole.
void CopyToServer(sagleme::Database const& database, std::string const& url, Output const& output) {
  std::uint32_t found = 0;
  auto const looked = lscoredb_exists(url.c_str(), &found);
  if (looked != 0) Refuse(url, looked);
  if (found != 0) {
    throw Failure(Exit::kRefused, fmt::format("{} already exists", sagleme::ShownPlace(url)),
                  "Name a schema that does not exist. One with a copy that was cut off is to be "
                  "dropped first.");
  }
  InterruptGuard const guard;
  auto const status = CopyWatched(database, url, output);
  if (status == LSCOREDB_STOPPED) throw Interrupted();
  if (status != 0) Refuse(url, status);
}

// The copy grows beside its place and gets its name when it is whole.
void CopyToDirectory(sagleme::Database const& database, std::string const& target,
                     Output const& output) {
  std::error_code ignored;
  if (std::filesystem::exists(target, ignored)) {
    throw Failure(Exit::kRefused, fmt::format("{} already exists", target),
                  "Name a directory that does not exist.");
  }
  std::string const growing = target + ".copying";
  std::filesystem::remove_all(growing, ignored);  // of a copy that was cut off
  InterruptGuard const guard;                     // what Ctrl-C leaves is removed
  std::uint32_t const status = CopyWatched(database, growing, output);
  if (status != 0) {
    std::filesystem::remove_all(growing, ignored);
    if (status == LSCOREDB_STOPPED) throw Interrupted();
    Refuse(target, status);
  }
  std::filesystem::rename(growing, target);
}

Exit Copy::Run(Session& session, Output& output) {
  session.RequireNoTransaction("copy");
  if (sagleme::IsServerUrl(target_)) {
    CopyToServer(session.database_to_read(), target_, output);
  } else {
    CopyToDirectory(session.database_to_read(), target_, output);
  }
  output.Note(fmt::format("copied to {}\n", sagleme::ShownPlace(target_)));
  return Exit::kDone;
}

}  // namespace

std::unique_ptr<Command> MakeCopy() { return std::make_unique<Copy>(); }

}  // namespace tool
