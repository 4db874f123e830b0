#ifndef PACKAGES_OBJECTS_H
#define PACKAGES_OBJECTS_H

// Objects read and written property by property through handles, and found by index.
//
// Everything works in the session's open transaction and is valid until it ends.

#include <functional>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "schema.h"
#include "session.h"

namespace packages {

inline bool IsNull(LS_OBJ_REF const& object) { return object.oid == 0; }

// One object under the properties' names. Writing an empty text or span writes null.
class Object {
 public:
  Object(Session& session, LS_OBJ_REF reference) : session_(session), ref_(reference) {}

  static Object Create(Session& session, CreateInfo const* handle);
  void Delete();

  LS_OBJ_REF const& ref() const { return ref_; }

  void SetText(Property property, std::string_view text);
  void SetLong(Property property, int64_t value);
  void SetULong(Property property, uint64_t value);
  void SetOptionalULong(Property property, std::optional<uint64_t> value);
  void SetOptionalDouble(Property property, std::optional<double> value);
  void SetBool(Property property, bool value);
  void SetBinary(Property property, std::span<uint8_t const> bytes);
  void SetRef(Property property, LS_OBJ_REF const& target);

  // Null reads as nothing, or as an empty text, an empty span, the null reference.
  std::string GetText(Property property) const;
  std::optional<int64_t> GetLong(Property property) const;
  std::optional<uint64_t> GetULong(Property property) const;
  std::optional<double> GetDouble(Property property) const;
  std::optional<bool> GetBool(Property property) const;
  std::span<uint8_t const> GetBinary(Property property) const;
  LS_OBJ_REF GetRef(Property property) const;

 private:
  void Wrote(uint32_t status) const { session_.Check(status, "writing a property"); }
  // False for null.
  bool HasRead(uint32_t status) const;

  Session& session_;
  LS_OBJ_REF ref_;
};

LS_OBJ_REF FindByText(uint64_t index, std::string_view text);

// Calls `visit` with each object that refers to `target` by the indexed column; the null reference
// finds those that refer to none. What `visit` writes does not change the scan. `visit` returns
// false to stop.
void EachReferring(uint64_t index, LS_OBJ_REF const& target,
                   std::function<bool(LS_OBJ_REF const&)> const& visit);

// The same with each object of a table and of all tables below it.
void EachInSubtree(Session& session, char16_t const* table,
                   std::function<bool(LS_OBJ_REF const&)> const& visit);

// Finds a package by name: by itself, with that architecture, or with whatever architecture it has.
LS_OBJ_REF FindPackage(Indexes const& indexes, std::string_view name,
                       std::string_view architecture);

}  // namespace packages

#endif
