#include "output/value_text.h"

#include <cmath>
#include <sagleme/host/text.hpp>

namespace tool {
namespace {

struct KindOf {
  Cell::Kind operator()(sagleme::Null) const { return Cell::Kind::kNull; }
  Cell::Kind operator()(bool) const { return Cell::Kind::kBool; }
  Cell::Kind operator()(std::int64_t) const { return Cell::Kind::kNumber; }
  Cell::Kind operator()(std::uint64_t) const { return Cell::Kind::kNumber; }
  Cell::Kind operator()(sagleme::ObjectId) const { return Cell::Kind::kNumber; }
  Cell::Kind operator()(float value) const { return Finite(static_cast<double>(value)); }
  Cell::Kind operator()(double value) const { return Finite(value); }
  template <typename T>
  Cell::Kind operator()(T const&) const {
    return Cell::Kind::kText;
  }

  static Cell::Kind Finite(double value) {
    return std::isfinite(value) ? Cell::Kind::kNumber : Cell::Kind::kText;
  }
};

}  // namespace

Cell ValueCell(sagleme::Value const& value) {
  auto const* const text = std::get_if<std::u16string>(&value);
  bool const lone = text != nullptr && !sagleme::IsWellFormed(*text);
  return {std::visit(KindOf{}, value), ValueText(value), lone};
}

}  // namespace tool
