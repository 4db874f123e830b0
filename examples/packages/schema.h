#ifndef PACKAGES_SCHEMA_H
#define PACKAGES_SCHEMA_H

// The tables of the program and the handles through which it works with their objects.

#include <array>
#include <span>
#include <string>

#include "package.h"
#include "session.h"

namespace packages {

// Logical type codes.
inline constexpr uint8_t kString = 1;
inline constexpr uint8_t kBinary = 2;
inline constexpr uint8_t kLong = 3;
inline constexpr uint8_t kULong = 4;
inline constexpr uint8_t kDouble = 7;
inline constexpr uint8_t kReference = 8;
inline constexpr uint8_t kBool = 10;

struct ColumnSpec {
  uint8_t type;
  char16_t const* name;
  char16_t const* target = nullptr;  // of a reference
  bool nullable = false;
};

struct TableSpec {
  char16_t const* name;
  char16_t const* base;  // null for none
  std::span<ColumnSpec const> columns;
};

namespace tables {
inline constexpr char16_t const* kMaintainer = u"Debian.Maintainer";
inline constexpr char16_t const* kPackage = u"Debian.Package";
inline constexpr char16_t const* kLibrary = u"Debian.Library";
inline constexpr char16_t const* kDevelopment = u"Debian.Development";
inline constexpr char16_t const* kDocumentation = u"Debian.Documentation";
inline constexpr char16_t const* kManual = u"Debian.Manual";
inline constexpr char16_t const* kProgram = u"Debian.Program";
inline constexpr char16_t const* kDependency = u"Debian.Dependency";
inline constexpr char16_t const* kHeaders = u"Debian.Headers";  // kDevelopment, after the evolution
}  // namespace tables

namespace indexes {
inline constexpr char16_t const* kMaintainerByContact = u"Debian.MaintainerByContact";
inline constexpr char16_t const* kPackageByKey = u"Debian.PackageByKey";
inline constexpr char16_t const* kPackageBySize = u"Debian.PackageBySize";
inline constexpr char16_t const* kDependencyBySource = u"Debian.DependencyBySource";
inline constexpr char16_t const* kDependencyByTarget = u"Debian.DependencyByTarget";
}  // namespace indexes

// All tables, every one behind those that it builds on.
std::span<TableSpec const> AllTables();
TableSpec const* FindTable(std::u16string_view name);
// The name of the table that holds packages of that kind.
char16_t const* TableOf(Kind kind);

// Creates what is missing; a database that has all of it is left as it is. Runs in the caller's
// transaction.
void CreateSchema(Session& session);

// Throws when the tables are no longer those above, because the evolution was played here. Needs no
// transaction.
void RefuseEvolved(Session& session, std::string const& directory);

using Property = PropertyAccessInfo const*;

struct PackageHandles {
  CreateInfo const* create = nullptr;
  uint64_t type_id = 0;
  Property key, name, architecture, version, epoch, section, priority, maintainer, summary,
      homepage, installed, essential, installed_size, download_size, compression, digest,
      configuration;
  Property library_version, runtime, documents, configuration_files;  // each in one table only
};

struct MaintainerHandles {
  CreateInfo const* create = nullptr;
  Property contact, name, email;
};

struct DependencyHandles {
  CreateInfo const* create = nullptr;
  Property source, target, target_name, relation, constraint, group, alternative;
};

// Valid while the schema stays as it is.
struct Handles {
  explicit Handles(Session& session);

  PackageHandles const& Of(Kind kind) const { return package[static_cast<std::size_t>(kind)]; }
  // The handles for a package of the table with that type id; null for another table.
  PackageHandles const* OfType(uint64_t type_id) const;

  std::array<PackageHandles, kKinds> package;
  MaintainerHandles maintainer;
  DependencyHandles dependency;
};

// The kernel's ids of the indexes. Valid while the indexes stay.
struct Indexes {
  Indexes();
  uint64_t maintainer_by_contact, package_by_key, package_by_size, dependency_by_source,
      dependency_by_target;
};

}  // namespace packages

#endif
