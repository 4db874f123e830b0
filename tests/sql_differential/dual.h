#ifndef SAGLEME_TESTS_SQL_DIFFERENTIAL_DUAL_H
#define SAGLEME_TESTS_SQL_DIFFERENTIAL_DUAL_H

// A piece of SQL as it is written for a sagleme database and for SQLite's own tables.

#include <string>
#include <utility>

namespace sql_differential {

struct Dual {
  std::string ours;
  std::string native;

  Dual() = default;
  Dual(char const* both) : ours(both), native(both) {}
  Dual(std::string const& both) : ours(both), native(both) {}
  Dual(std::string our_text, std::string native_text)
      : ours(std::move(our_text)), native(std::move(native_text)) {}

  Dual& operator+=(Dual const& other) {
    ours += other.ours;
    native += other.native;
    return *this;
  }
  friend Dual operator+(Dual a, Dual const& b) { return a += b; }
};

}  // namespace sql_differential

#endif
