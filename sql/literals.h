#ifndef SAGLEME_SQL_LITERALS_H
#define SAGLEME_SQL_LITERALS_H

// Values as they stand in SQL.
//
//   string     'text'; with a lone surrogate a blob of its units, as ExactResult writes it
//   binary     X'bytes'
//   long, ulong, key, bool   digits
//   decimal    'digits', which are exact
//   float, double            the shortest digits; what is no number as the blob of its eight bytes

#include <sagleme/host.hpp>
#include <string>

namespace sagleme::sql {

std::string Literal(Value const& value);
// The text of a literal in single quotes.
std::string TextOfLiteral(std::string const& literal);
// The value of a type that a literal stands for, also TRUE, FALSE and NULL. Failure if it is none.
Value ParseLiteral(Type type, std::string const& literal);

}  // namespace sagleme::sql

#endif
