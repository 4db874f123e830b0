#ifndef SAGLEME_HOST_ANNOTATIONS_CARRIED_H
#define SAGLEME_HOST_ANNOTATIONS_CARRIED_H

// The annotations of a column whose row in the catalogue another one replaces.

#include <functional>
#include <sagleme/annotations.hpp>
#include <string>

namespace sagleme::annotations {

class CarriedAnnotations {
 public:
  // Takes those of a column of the table.
  CarriedAnnotations(Transaction& transaction, Text const& table, Text const& column);

  // Replaces the default by what it becomes in another type; null for nothing.
  void ConvertDefault(std::function<Value(Value const&)> const& convert);

  // Gives them to a column that its table declares: a rule if it is a reference, a default
  // otherwise. Removes those of rows that are gone.
  void GiveTo(Transaction& transaction, Text const& table, Text const& column) const;

 private:
  std::string comment_;
  Value default_;
  OnDelete on_delete_ = OnDelete::kKeep;
};

}  // namespace sagleme::annotations

#endif
