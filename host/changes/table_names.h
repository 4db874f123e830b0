#ifndef SAGLEME_HOST_CHANGES_TABLE_NAMES_H
#define SAGLEME_HOST_CHANGES_TABLE_NAMES_H

// The names of tables and columns for what the kernel tells by set specifier and token.

#include <cstdint>
#include <map>
#include <optional>
#include <sagleme/host.hpp>
#include <string>

namespace sagleme {

struct TableNames {
  std::u16string name;
  bool system = false;
  std::map<std::uint64_t, std::u16string> columns;  // by token
};

// Those of the newest schema, each read once until Forget.
class NamesOfTables {
 public:
  explicit NamesOfTables(Database const& database) : context_(database) {}

  // Null if there is no such table any more. Valid until Forget.
  TableNames const* Find(std::u16string const& setspec);
  void Forget() { known_.clear(); }

 private:
  std::optional<TableNames> Read(std::u16string const& setspec) const;

  Context context_;
  std::map<std::u16string, std::optional<TableNames>> known_;
};

}  // namespace sagleme

#endif
