#ifndef SAGLEME_TOOL_CHECK_PARTS_H
#define SAGLEME_TOOL_CHECK_PARTS_H

// The parts of the check above the kernel. Each tells what it finds and goes on.

#include <exception>
#include <sagleme/check.hpp>
#include <sstream>
#include <string>
#include <string_view>

namespace sagleme::checks {

void CheckTables(Transaction& transaction, FindingReport const& report);
void CheckRows(Transaction& transaction, FindingReport const& report);
void CheckObjects(Transaction& transaction, CheckOptions const& options,
                  FindingReport const& report);

// What a report threw, on its way through checks that catch the failures of reading.
struct ReportFailure {
  std::exception_ptr cause;
};

// Runs `work` with a report whose exceptions come out as they are.
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
