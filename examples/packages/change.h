#ifndef PACKAGES_CHANGE_H
#define PACKAGES_CHANGE_H

// The change of the schema that the second act plays, and what it promises for the packages.

#include <cstddef>
#include <cstdint>
#include <sagleme/host.hpp>
#include <stdexcept>
#include <string>

#include "catalogue.h"

namespace packages {

namespace change {
inline constexpr char16_t const* kRating = u"Rating";            // added, long, never null
inline constexpr char16_t const* kNote = u"Note";                // added, text
inline constexpr char16_t const* kSummary = u"Summary";          // renamed to
inline constexpr char16_t const* kDescription = u"Description";  // this
inline constexpr char16_t const* kCompression = u"Compression";  // dropped
inline constexpr char16_t const* kPackageByNote = u"Debian.PackageByNote";
}  // namespace change

// A promise about tables or objects that the database did not keep.
struct BrokenPromise : std::runtime_error {
  using runtime_error::runtime_error;
};
void Promise(bool kept, std::string const& what);

void ChangeSchema(sagleme::Transaction& transaction);
void PrintChange();
// Whether the change drops the table of that name.
bool IsDropped(std::string const& table);

// How every package came through the change, found out by comparing all values. Throws
// BrokenPromise for the first that did not come through as it should.
class Survival {
 public:
  Survival(View const& before, View const& after);
  void Print() const;

 private:
  void Compare(uint64_t oid, PackageView const& old, PackageView const& now);
  void CompareValues(uint64_t oid, PackageView const& old, PackageView const& now);

  View const& before_;
  View const& after_;
  int64_t stayed_ = 0;
  std::size_t dropped_ = 0;
  int64_t values_ = 0;  // that were compared
};

}  // namespace packages

#endif
