#include <fmt/format.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sagleme/failure.hpp>
#include <sagleme/host/import.hpp>

#include "data/import_rows.h"
#include "jobs/kinds.h"

namespace sagleme {
namespace {

using nlohmann::json;

// A file as it was when its import began.
struct FileState {
  bool regular = false;
  std::uint64_t size = 0;
  std::string text;  // empty if it is no file of which this can be said
};

FileState StateOf(std::string const& path) {
  struct stat status {};
  if (stat(path.c_str(), &status) != 0 || !S_ISREG(status.st_mode)) return {};
  return {true, static_cast<std::uint64_t>(status.st_size),
          fmt::format("{} bytes, changed at {}.{:09}", status.st_size, status.st_mtim.tv_sec,
                      status.st_mtim.tv_nsec)};
}

bool IsUtf8(std::string const& text) {
  try {
    ToUtf16(text);
    return true;
  } catch (BadUtf8 const&) {
    return false;
  }
}

std::string AbsolutePath(std::string const& path) {
  std::error_code refused;
  auto const absolute = std::filesystem::absolute(path, refused);
  return refused ? path : absolute.lexically_normal().string();
}

// A row takes two bytes at least, unless the file is compressed.
bool MayTakeTwoBatches(FileState const& state, std::string const& path, std::uint64_t batch) {
  return batch != 0 && (path.ends_with(".gz") || state.size / 2 > batch);
}

jobs::Row RowOf(FileImport const& file, FileState const& state, ImportOptions const& options) {
  std::string const path = AbsolutePath(file.path);
  std::string const table = ToUtf8(file.table);
  jobs::Row row;
  row.kind = JobKind::kImport;
  row.description =
      fmt::format("{} into {}", std::filesystem::path(path).filename().string(), table);
  row.details = json{{"table", table},
                     {"path", path},
                     {"json", file.format.form == FileForm::kJsonLines},
                     {"separator", static_cast<int>(file.format.separator)}}
                    .dump();
  row.input = state.text;
  row.batch = options.batch;
  row.pause = static_cast<std::uint64_t>(options.pause.count());
  return row;
}

// As long as nothing is imported, nothing is wrong with another file.
void RequireUnchanged(std::string const& path, FileState const& state, jobs::Row const& job) {
  if (job.position == 0 || job.input == state.text) return;
  throw Failure(
      Failure::Kind::kRefused,
      fmt::format("{} has changed since its import was cut off after {} rows", path, job.position),
      fmt::format("Skip as many rows to go on, or abandon job {}.", job.id.value));
}

std::unique_ptr<std::istream> OpenForReading(std::string const& path) {
  auto file = std::make_unique<std::ifstream>(path, std::ios::binary);
  if (*file) return file;
  throw Failure(Failure::Kind::kCannotOpen,
                fmt::format("cannot read {}: {}", path, std::strerror(errno)));
}

}  // namespace

bool ImportFile(Context const& context, FileImport const& file, RowSource& rows,
                ImportOptions const& options, ImportResult& result) {
  FileState const state = StateOf(file.path);
  // The row of a job takes an identity, which the file may have.
  bool const is_job = state.regular && options.batch != 0 && !options.keep_ids;
  if (!is_job || !IsUtf8(AbsolutePath(file.path))) {
    jobs::Run run(context, {}, options.control);
    return ImportRows(context, file.table, rows, options, result, run);
  }
  jobs::Run run(context, RowOf(file, state, options), options.control);
  return run.Perform([&] {
    run.RequireNobodyElse();
    ImportOptions how = options;
    if (run.TakeUp()) {
      if (how.skip == 0) RequireUnchanged(file.path, state, run.job());
      if (how.skip == 0) how.skip = result.before = run.job().position;
      run.SetPosition(how.skip, state.text);
    } else if (MayTakeTwoBatches(state, file.path, options.batch)) {
      run.Record(state.size);
    }
    try {
      if (!ImportRows(context, file.table, rows, how, result, run)) return false;
    } catch (std::exception const&) {
      if (result.rows == how.skip && run.job().position == 0)
        run.Finish();  // nothing to go on with
      throw;
    }
    run.Finish();
    return true;
  });
}

bool ImportFile(Context const& context, FileImport const& file, ImportOptions const& options,
                ImportResult& result) {
  auto const input = OpenForReading(file.path);
  auto const rows = OpenRows(*input, file.format);
  return ImportFile(context, file, *rows, options, result);
}

bool jobs::ResumeImport(Context const& context, Run& run, JobOptions const& options) {
  json const details = json::parse(run.job().details);
  std::string const path = details.at("path");
  auto const input = OpenForReading(path);
  RequireUnchanged(path, StateOf(path), run.job());
  RowFormat format;
  format.form = details.at("json") ? FileForm::kJsonLines : FileForm::kCsv;
  format.separator = static_cast<char>(details.at("separator").get<int>());
  ImportOptions how;
  how.skip = run.job().position;
  how.batch = run.job().batch;
  how.pause = std::chrono::milliseconds(run.job().pause);
  how.after_batch = options.report;
  std::u16string const table = ToUtf16(details.at("table").get<std::string>());
  ImportResult result;
  try {
    auto const rows = OpenRows(*input, format);
    if (!ImportRows(context, table, *rows, how, result, run)) return false;
  } catch (BadRow const& bad) {
    throw Failure(Failure::Kind::kBadData, fmt::format("{}:{}:{}: {}", path, bad.location().line,
                                                       bad.location().column, bad.what()));
  }
  run.Finish();
  return true;
}

}  // namespace sagleme
