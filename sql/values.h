#ifndef SAGLEME_SQL_VALUES_H
#define SAGLEME_SQL_VALUES_H

// Values of columns as SQLite's values, and back.
//
//   string               TEXT; a lone surrogate as U+FFFD
//   binary               BLOB
//   long, bool           INTEGER
//   ulong, key           INTEGER, from 2^63 on the nearest REAL
//   reference            INTEGER, the object's id, marked with the attachment it belongs to
//   decimal              REAL, the nearest
//   float, double        REAL; what is not a number as NULL
//
// What is not exact so is so by ExactResult: as a blob of the UTF-16 units, least byte first, or of
// the eight bytes of the number, most significant first.

#include <cstdint>
#include <sagleme/host.hpp>

#include "api.h"
#include "schema.h"

namespace sagleme::sql {

// An object's column, as the kernel's functions name it.
struct ValueLocation {
  std::uint64_t context;
  std::uint64_t oid;
  std::uint64_t addr;
  std::uint32_t column;
};

// SQLite hands a result on with its subtype as long as it is not stored: references carry the
// number of their attachment in it.
inline constexpr unsigned kReferenceSubtype = 128;
inline constexpr unsigned kMostAttachments = 127;

// Failure when the object is gone.
void Result(sqlite3_context* result, ValueLocation const& location, Type type, unsigned attachment);
// The value of a column of fixed size from its bits, as lscoredb_read_words gives them.
void WordResult(sqlite3_context* result, std::uint64_t bits, Type type, unsigned attachment);
// An object's id, marked like a reference to it.
void IdResult(sqlite3_context* result, std::uint64_t oid, unsigned attachment);
void ExactResult(sqlite3_context* result, ValueLocation const& location, Type type);

// A value ready to be written: nothing can be wrong with it any more but what the kernel finds.
class Input {
 public:
  // Failure when the value has no place in the column, with the column's name.
  Input(ShapeColumn const& column, sqlite3_value* value);

  std::uint32_t Put(ValueLocation const& location) const;
  sagleme::Value const& value() const { return value_; }

 private:
  sagleme::Value value_;
};

// A decimal number of at most six places, as digits.
std::optional<Decimal> ParseDecimal(std::string_view text);

}  // namespace sagleme::sql

#endif
