#include "data/server_load.h"

#include <fmt/format.h>
#include <lscoredb/watch.h>
#include <stdlib.h>

#include <cerrno>
#include <cstring>
#include <exception>
#include <filesystem>
#include <sagleme/failure.hpp>
#include <sagleme/host/database.hpp>

namespace sagleme {
namespace {

class TemporaryDirectory {
 public:
  TemporaryDirectory()
      : path_((std::filesystem::temp_directory_path() / "sagleme-load-XXXXXX").string()) {
    if (mkdtemp(path_.data()) != nullptr) return;
    throw Failure(Failure::Kind::kRefused,
                  fmt::format("cannot create {}: {}", path_, std::strerror(errno)),
                  "TMPDIR names a directory with room for the database.");
  }
  ~TemporaryDirectory() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  TemporaryDirectory(TemporaryDirectory const&) = delete;
  TemporaryDirectory& operator=(TemporaryDirectory const&) = delete;

  std::string const& path() const { return path_; }

 private:
  std::string path_;
};

// Lets the report of a load stop the copy as well.
class CopyWatch {
 public:
  CopyWatch(TransferReport const& report, std::uint64_t objects)
      : report_(report), objects_(objects) {
    lscoredb_watch(Tell, this);
  }
  ~CopyWatch() { lscoredb_watch(nullptr, nullptr); }
  CopyWatch(CopyWatch const&) = delete;
  CopyWatch& operator=(CopyWatch const&) = delete;

  void Rethrow() const {
    if (thrown_) std::rethrow_exception(thrown_);
  }

 private:
  static std::uint32_t Tell(void* self, std::uint64_t, std::uint64_t) {
    auto& watch = *static_cast<CopyWatch*>(self);
    try {
      if (watch.report_) watch.report_({watch.objects_, watch.objects_, watch.objects_});
      return 0;
    } catch (...) {
      watch.thrown_ = std::current_exception();
      return 1;
    }
  }

  TransferReport const& report_;
  std::uint64_t objects_;
  std::exception_ptr thrown_;
};

void RequireNothingAt(std::string const& url) {
  std::uint32_t found = 0;
  detail::CheckOpened(lscoredb_exists(url.c_str(), &found), url);
  if (found == 0) return;
  throw Failure(Failure::Kind::kRefused, fmt::format("{} already exists", ShownPlace(url)),
                "Name a schema that does not exist.");
}

}  // namespace

LoadResult LoadOntoServer(std::string const& url, TransferReport const& report,
                          LoadInto const& load) {
  RequireNothingAt(url);
  TemporaryDirectory const here;
  std::string const directory = here.path() + "/database";
  LoadResult const result = load(directory);
  Database const loaded = Database::Open(directory, {.log = LSCOREDB_SAME_LOG});
  CopyWatch const watch(report, result.objects);
  std::uint32_t const status = lscoredb_copy(loaded.handle(), url.c_str());
  watch.Rethrow();
  detail::CheckOpened(status, url);
  return result;
}

}  // namespace sagleme
