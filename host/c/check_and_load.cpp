#include <lscoredb/watch.h>

#include <algorithm>
#include <cstring>
#include <fstream>
#include <sagleme/check.hpp>
#include <sagleme/host/dump.hpp>
#include <string>

#include "c/job_options.h"

namespace sagleme {
namespace {

// Passes the progress on. A result other than 0 ends the work as a control does.
void Report(sagleme_job_options const& options, std::uint64_t done, std::uint64_t total) {
  if (options.report == nullptr) return;
  if (options.report(options.user, done, total, 0) != 0) detail::CheckKernel(LSCOREDB_STOPPED);
}

sagleme_finding ForC(Finding const& finding) {
  sagleme_finding c{};
  c.size = sizeof c;
  c.rule = finding.rule.c_str();
  c.table = finding.table.c_str();
  c.object = finding.object;
  c.what = finding.what.c_str();
  return c;
}

}  // namespace
}  // namespace sagleme

std::uint32_t sagleme_check(char const* place, std::uint32_t references,
                            sagleme_finding_callback visit, void* user,
                            sagleme_job_options const* options) {
  return sagleme::Guarded([&] {
    sagleme::Require(place);
    if (visit == nullptr) sagleme::detail::CheckKernel(LSCOREDB_NULL_ARGUMENT);
    sagleme_job_options const whole = sagleme::Whole(options);
    sagleme::CheckOptions how;
    how.references = references != 0;
    how.control = sagleme::ControlOf(whole);
    how.progress = [&](std::uint64_t done, std::uint64_t total) {
      sagleme::Report(whole, done, total);
    };
    sagleme::CheckDatabase(place, how, [&](sagleme::Finding const& finding) {
      sagleme_finding const c = sagleme::ForC(finding);
      if (visit(user, &c) != 0) sagleme::detail::CheckKernel(LSCOREDB_STOPPED);
    });
    return 0u;
  });
}

std::uint32_t sagleme_load(char const* place, char const* file, sagleme_job_options const* options,
                           std::uint64_t* objects) {
  return sagleme::Guarded([&] {
    sagleme::Require(place);
    sagleme::Require(file);
    sagleme_job_options const whole = sagleme::Whole(options);
    sagleme::LoadOptions how;
    how.control = sagleme::ControlOf(whole);
    how.report = [&](sagleme::TransferProgress const& progress) {
      sagleme::Report(whole, progress.done, progress.total);
    };
    std::ifstream input(file, std::ios::binary);
    if (!input) {
      throw sagleme::Failure(sagleme::Failure::Kind::kCannotOpen,
                             std::string("cannot open ") + file);
    }
    std::uint64_t const loaded = sagleme::Load(place, input, file, how).objects;
    if (objects != nullptr) *objects = loaded;
    return 0u;
  });
}
