#include "schema/refused_move.h"

#include <fmt/format.h>

#include <sagleme/hierarchy.hpp>

namespace sagleme {
namespace {

std::string ReferrersText(std::vector<Referrer> const& referrers) {
  if (referrers.empty()) return "";
  Referrer const& first = referrers.front();
  std::string const rest =
      referrers.size() == 1 ? "" : fmt::format(", and there are {} more", referrers.size() - 1);
  return fmt::format("object {} refers to object {} by {} of {}{}", first.object.value,
                     first.target.value, ToUtf8(first.column), ToUtf8(first.table), rest);
}

}  // namespace

std::string RefusalOfMove(Transaction& transaction, change::SetBase const& move) {
  try {
    return ReferrersText(
        PlanSetBase(transaction, ToUtf16(move.table), ToUtf16(move.base), {.merge = true})
            .referrers);
  } catch (Failure const&) {
    return "";
  } catch (Error const& error) {
    bool const expected = error.status() == SAGLEME_TABLE_NOT_FOUND ||
                          error.status() == SAGLEME_BASE_NOT_FOUND ||
                          error.status() == SAGLEME_TOO_DEEP;
    if (!expected) throw;
    return "";
  }
}

}  // namespace sagleme
