#ifndef SAGLEME_HOST_ANNOTATIONS_CARRIED_H
#define SAGLEME_HOST_ANNOTATIONS_CARRIED_H

// The annotations of a column whose row in the catalogue another one replaces.

#include <sagleme/annotations.hpp>
#include <string>

namespace sagleme::annotations {

class CarriedAnnotations {
 public:
  // Takes those of a column of the table.
  CarriedAnnotations(Transaction& transaction, Text const& table, Text const& column);

  // Gives them to a column that its table declares: a default as far as the type holds it, a rule
  // if it is a reference. Removes those of rows that are gone.
  void GiveTo(Transaction& transaction, Text const& table, Text const& column) const;

 private:
  std::string comment_;
  std::string default_json_;
  OnDelete on_delete_ = OnDelete::kKeep;
};

}  // namespace sagleme::annotations

#endif
