#include "model/session.h"

#include <fstream>

namespace sagleme_model {

std::uint64_t Identities::Of(Uid row) const {
  auto const found = oids_.find(row);
  return found == oids_.end() ? 0 : found->second;
}

Uid Identities::RowOf(std::uint64_t oid) const {
  for (auto const& [row, known] : oids_) {
    if (known == oid) return row;
  }
  return 0;
}

void Identities::Save(std::filesystem::path const& file) const {
  std::ofstream out(file, std::ios::trunc);
  for (auto const& [row, oid] : oids_) out << "row " << row << ' ' << oid << '\n';
  for (auto const& [column, token] : tokens_) out << "token " << column << ' ' << token << '\n';
}

Identities Identities::Load(std::filesystem::path const& file) {
  Identities identities;
  std::ifstream in(file);
  std::string kind;
  Uid number = 0;
  std::uint64_t value = 0;
  while (in >> kind >> number >> value) {
    (kind == "row" ? identities.oids_ : identities.tokens_)[number] = value;
  }
  return identities;
}

std::uint32_t PropertyHandle(std::uint64_t context, Text const& table, Text const& column,
                             PropertyAccessInfo** out) {
  return lorv_crud_GetPropertyHandle(context, table.c_str(), column.c_str(), out);
}

namespace {

template <typename Number, auto Read>
std::uint32_t ReadNumber(std::uint64_t context, PropertyAccessInfo const* handle, std::uint64_t oid,
                         Value* out) {
  Number number{};
  std::uint32_t const status = Read(context, handle, oid, 0, &number);
  if (status == 0) *out = number;
  return status;
}

std::uint32_t ReadText(std::uint64_t context, PropertyAccessInfo const* handle, std::uint64_t oid,
                       Value* out) {
  char16_t const* text = nullptr;
  std::uint32_t const status = lorv_crud_ReadString(context, handle, oid, 0, &text);
  if (status == 0) *out = Text(text);
  return status;
}

std::uint32_t ReadBytes(std::uint64_t context, PropertyAccessInfo const* handle, std::uint64_t oid,
                        Value* out) {
  LORV_BINARY* record = nullptr;
  std::uint32_t const status = lorv_crud_ReadBinary(context, handle, oid, 0, &record);
  if (status == 0) {
    *out = std::string(reinterpret_cast<char const*>(record->bytes), record->length);
  }
  return status;
}

}  // namespace

std::uint32_t ReadValue(Session& session, PropertyAccessInfo const* handle, std::uint64_t oid,
                        std::uint8_t type, Value* out) {
  std::uint64_t const context = session.context();
  switch (type) {
    case kString:
      return ReadText(context, handle, oid, out);
    case kBinary:
      return ReadBytes(context, handle, oid, out);
    case kLong:
      return ReadNumber<std::int64_t, lorv_crud_ReadLong>(context, handle, oid, out);
    case kDecimal:
      return ReadNumber<std::int64_t, lorv_crud_ReadDecimal>(context, handle, oid, out);
    case kFloat:
      return ReadNumber<float, lorv_crud_ReadFloat>(context, handle, oid, out);
    case kDouble:
      return ReadNumber<double, lorv_crud_ReadDouble>(context, handle, oid, out);
    case kBool:
      return ReadNumber<std::uint64_t, lorv_crud_ReadBool>(context, handle, oid, out);
    case kReference: {
      std::uint64_t target = 0;
      std::uint32_t const status = lorv_crud_ReadRefId(context, handle, oid, 0, &target);
      if (status == 0) *out = Reference{session.identities().RowOf(target)};
      return status;
    }
    default:
      return ReadNumber<std::uint64_t, lorv_crud_ReadULong>(context, handle, oid, out);
  }
}

}  // namespace sagleme_model
