#include "objects.h"

#include "text.h"

namespace packages {

using metalayer::Key;
using metalayer::kForward;

Object Object::Create(Session& session, CreateInfo const* handle) {
  LS_OBJ_REF created{};
  session.Check(lorv_crud_CreateObject(session.context(), handle, &created.oid, &created.addr),
                "creating an object");
  return Object(session, created);
}

void Object::Delete() {
  session_.Check(lorv_crud_DeleteObject_NoHandle(session_.context(), ref_.oid, ref_.addr),
                 "deleting an object");
}

void Object::SetText(Property property, std::string_view text) {
  if (text.empty()) {
    Wrote(lorv_crud_WriteString(session_.context(), property, ref_.oid, ref_.addr, nullptr));
    return;
  }
  std::u16string const wide = sagleme::ToUtf16(text);
  Wrote(lorv_crud_WriteString(session_.context(), property, ref_.oid, ref_.addr, wide.c_str()));
}

void Object::SetLong(Property property, int64_t value) {
  Wrote(lorv_crud_WriteLong(session_.context(), property, ref_.oid, ref_.addr, value));
}

void Object::SetULong(Property property, uint64_t value) {
  Wrote(lorv_crud_WriteULong(session_.context(), property, ref_.oid, ref_.addr, value));
}

void Object::SetOptionalULong(Property property, std::optional<uint64_t> value) {
  if (value) return SetULong(property, *value);
  Wrote(lorv_crud_WriteDefault(session_.context(), property, ref_.oid, ref_.addr));
}

void Object::SetOptionalDouble(Property property, std::optional<double> value) {
  Wrote(value ? lorv_crud_WriteDouble(session_.context(), property, ref_.oid, ref_.addr, *value)
              : lorv_crud_WriteDefault(session_.context(), property, ref_.oid, ref_.addr));
}

void Object::SetBool(Property property, bool value) {
  Wrote(lorv_crud_WriteBool(session_.context(), property, ref_.oid, ref_.addr, value));
}

void Object::SetBinary(Property property, std::span<uint8_t const> bytes) {
  void const* const data = bytes.empty() ? nullptr : bytes.data();
  Wrote(
      lorv_crud_WriteBinary(session_.context(), property, ref_.oid, ref_.addr, data, bytes.size()));
}

void Object::SetRef(Property property, LS_OBJ_REF const& target) {
  Wrote(lorv_crud_WriteRef(session_.context(), property, ref_.oid, ref_.addr, target.oid,
                           target.addr));
}

bool Object::HasRead(uint32_t status) const {
  if (status == LORV_STATUS_NULL) return false;
  session_.Check(status, "reading a property");
  return true;
}

std::string Object::GetText(Property property) const {
  char16_t const* text = nullptr;
  bool const has_value =
      HasRead(lorv_crud_ReadString(session_.context(), property, ref_.oid, ref_.addr, &text));
  return has_value ? sagleme::ToUtf8(text) : std::string();
}

std::optional<int64_t> Object::GetLong(Property property) const {
  int64_t value = 0;
  bool const has_value =
      HasRead(lorv_crud_ReadLong(session_.context(), property, ref_.oid, ref_.addr, &value));
  return has_value ? std::optional(value) : std::nullopt;
}

std::optional<uint64_t> Object::GetULong(Property property) const {
  uint64_t value = 0;
  bool const has_value =
      HasRead(lorv_crud_ReadULong(session_.context(), property, ref_.oid, ref_.addr, &value));
  return has_value ? std::optional(value) : std::nullopt;
}

std::optional<double> Object::GetDouble(Property property) const {
  double value = 0;
  bool const has_value =
      HasRead(lorv_crud_ReadDouble(session_.context(), property, ref_.oid, ref_.addr, &value));
  return has_value ? std::optional(value) : std::nullopt;
}

std::optional<bool> Object::GetBool(Property property) const {
  uint64_t value = 0;
  bool const has_value =
      HasRead(lorv_crud_ReadBool(session_.context(), property, ref_.oid, ref_.addr, &value));
  return has_value ? std::optional(value != 0) : std::nullopt;
}

std::span<uint8_t const> Object::GetBinary(Property property) const {
  LORV_BINARY* value = nullptr;
  bool const has_value =
      HasRead(lorv_crud_ReadBinary(session_.context(), property, ref_.oid, ref_.addr, &value));
  if (!has_value) return {};
  uint8_t const* const bytes = value->bytes;
  return {bytes, value->length};
}

LS_OBJ_REF Object::GetRef(Property property) const {
  LS_OBJ_REF target{};
  bool const has_value =
      HasRead(lorv_crud_ReadRef(session_.context(), property, ref_.oid, ref_.addr, &target));
  return has_value ? target : LS_OBJ_REF{};
}

LS_OBJ_REF FindByText(uint64_t index, std::string_view text) {
  unsigned char key[db_util::db_iter_with_keys::kKeySize];
  Key(key).Text(sagleme::ToUtf16(text).c_str());
  return metalayer::LookupByKey(index, key);
}

void EachReferring(uint64_t index, LS_OBJ_REF const& target,
                   std::function<bool(LS_OBJ_REF const&)> const& visit) {
  db_util::db_iter_with_keys scan;
  for (unsigned char* const bound : {scan.first_key, scan.last_key}) {
    Key key(db_util::KeyBuf(bound, sizeof scan.first_key));
    if (IsNull(target)) {
      key.Null();
    } else {
      key.Ref(target);
    }
  }
  scan.open(index, kForward);
  while (scan.next() && visit(scan.current)) {
  }
}

void EachInSubtree(Session& session, char16_t const* table,
                   std::function<bool(LS_OBJ_REF const&)> const& visit) {
  metalayer::RawView const view = metalayer::RawView::ByRawViewPK2fullname(table);
  metalayer::SetSpecifier const row = metalayer::SetSpecifier::ByType(view);
  char16_t const* setspec = nullptr;
  session.Check(lorv_setspec_name_by_setspec_ref(session.context(), row.oid, row.addr, &setspec),
                "finding the set of a table");
  db_util::db_iter_with_keys scan;
  metalayer::RangeGlobalSetspecIndex(setspec, &scan);
  for (; !IsNull(scan.current) && visit(scan.current); scan.next()) {
  }
}

LS_OBJ_REF FindPackage(Indexes const& indexes, std::string_view name,
                       std::string_view architecture) {
  LS_OBJ_REF const plain = FindByText(indexes.package_by_key, name);
  if (!IsNull(plain)) return plain;
  std::string const with_colon = std::string(name) + ":";
  LS_OBJ_REF const exact =
      architecture.empty()
          ? LS_OBJ_REF{}
          : FindByText(indexes.package_by_key, with_colon + std::string(architecture));
  if (!IsNull(exact)) return exact;
  std::u16string const prefix = sagleme::ToUtf16(with_colon);
  db_util::db_iter_with_keys scan;
  Key(scan.first_key).Text(prefix.c_str());
  Key(scan.last_key).TextUpperBound(prefix.c_str());
  scan.open(indexes.package_by_key, kForward);
  scan.next();
  return scan.current;
}

}  // namespace packages
