#ifndef SAGLEME_TOOL_CHECK_PARTS_H
#define SAGLEME_TOOL_CHECK_PARTS_H

// The parts of the check above the kernel. Each reports its findings and continues.

#include <lscoredb/watch.h>

#include <algorithm>
#include <exception>
#include <sagleme/check.hpp>
#include <sstream>
#include <string>
#include <string_view>

namespace sagleme::checks {

class Progress;

void CheckTables(Transaction& transaction, FindingReport const& report);
void CheckRows(Transaction& transaction, FindingReport const& report);
void CheckAnnotations(Transaction& transaction, FindingReport const& report);
void CheckObjects(Transaction& transaction, CheckOptions const& options,
                  FindingReport const& report, Progress const& progress);

// Carries an exception of a report through checks that catch read failures.
struct ReportFailure {
  std::exception_ptr cause;
};

// Runs `work` with a report whose exceptions pass through unchanged.
template <typename Work>
void WithOwnFailures(FindingReport const& report, Work&& work) {
  try {
    work(FindingReport([&report](Finding const& finding) {
      try {
        report(finding);
      } catch (...) {
        throw ReportFailure{std::current_exception()};
      }
    }));
  } catch (ReportFailure const& failure) {
    std::rethrow_exception(failure.cause);
  }
}

// Progress of the check: the kernel's part, which counts as so many quarters, and the objects.
class Progress {
 public:
  Progress(CheckOptions const& options, std::uint64_t kernel_quarters)
      : options_(options), before_(kernel_quarters * kQuarter) {}

  // Runs a call of the kernel. Rethrows what the options' function threw after the call returned.
  template <typename Call>
  std::uint32_t Watched(Call&& call) {
    if (!options_.progress) return call();
    std::uint32_t const status = [&] {
      Watch const watch(*this);
      return call();
    }();
    if (thrown_) std::rethrow_exception(thrown_);
    return status;
  }
  // Of the objects; `of` is an estimate. Throws ReportFailure.
  void Objects(std::uint64_t done, std::uint64_t of) const {
    if (!options_.progress) return;
    std::uint64_t const inside = of == 0 ? 0 : std::min(done, of) * kQuarter / of;
    try {
      options_.progress(before_ + inside, before_ + kQuarter);
    } catch (...) {
      throw ReportFailure{std::current_exception()};
    }
  }

 private:
  static constexpr std::uint64_t kQuarter = 1000;

  struct Watch {
    explicit Watch(Progress& progress) { lscoredb_watch(&Progress::Report, &progress); }
    ~Watch() { lscoredb_watch(nullptr, nullptr); }
    Watch(Watch const&) = delete;
    Watch& operator=(Watch const&) = delete;
  };

  static std::uint32_t Report(void* self, std::uint64_t done, std::uint64_t total) {
    auto& progress = *static_cast<Progress*>(self);
    try {
      std::uint64_t const share = total == 0 ? 0 : done * progress.before_ / total;
      progress.options_.progress(share, progress.before_ + kQuarter);
      return 0;
    } catch (...) {
      progress.thrown_ = std::current_exception();
      return 1;
    }
  }

  CheckOptions const& options_;
  std::uint64_t before_;
  std::exception_ptr thrown_;
};

// The text with each {} replaced by the next argument.
template <typename... Arguments>
std::string Say(std::string_view text, Arguments const&... arguments) {
  std::ostringstream out;
  [[maybe_unused]] auto const next = [&](auto const& argument) {
    std::size_t const at = text.find("{}");
    out << text.substr(0, at) << argument;
    text.remove_prefix(at + 2);
  };
  (next(arguments), ...);
  out << text;
  return out.str();
}

}  // namespace sagleme::checks

#endif
