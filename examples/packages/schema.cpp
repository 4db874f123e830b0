#include "schema.h"

#include <algorithm>
#include <stdexcept>
#include <vector>

namespace packages {
namespace {

// Text, binary and reference columns always take null.
constexpr ColumnSpec Text(char16_t const* name) { return {kString, name, nullptr, true}; }
constexpr ColumnSpec Binary(char16_t const* name) { return {kBinary, name, nullptr, true}; }
constexpr ColumnSpec Ref(char16_t const* name, char16_t const* target) {
  return {kReference, name, target, true};
}

constexpr ColumnSpec kMaintainerColumns[] = {Text(u"Contact"), Text(u"Name"), Text(u"Email")};
constexpr ColumnSpec kPackageColumns[] = {
    Text(u"Key"),
    Text(u"Name"),
    Text(u"Architecture"),
    Text(u"Version"),
    {kLong, u"Epoch"},
    Text(u"Section"),
    Text(u"Priority"),
    Ref(u"Maintainer", tables::kMaintainer),
    Text(u"Summary"),
    Text(u"Homepage"),
    {kBool, u"Installed"},
    {kBool, u"Essential"},
    {kULong, u"InstalledSize"},
    {kULong, u"DownloadSize", nullptr, true},
    {kDouble, u"Compression", nullptr, true},
    Binary(u"Digest"),
    Binary(u"Configuration"),
};
constexpr ColumnSpec kLibraryColumns[] = {Text(u"LibraryVersion")};
constexpr ColumnSpec kDevelopmentColumns[] = {Ref(u"Runtime", tables::kLibrary)};
constexpr ColumnSpec kDocumentationColumns[] = {Ref(u"Documents", tables::kPackage)};
constexpr ColumnSpec kProgramColumns[] = {{kLong, u"ConfigurationFiles"}};
constexpr ColumnSpec kDependencyColumns[] = {
    Ref(u"Source", tables::kPackage),
    Ref(u"Target", tables::kPackage),
    Text(u"TargetName"),
    Text(u"Relation"),
    Text(u"Constraint"),
    {kLong, u"Group"},
    {kLong, u"Alternative"},
};

constexpr TableSpec kTables[] = {
    {tables::kMaintainer, nullptr, kMaintainerColumns},
    {tables::kPackage, nullptr, kPackageColumns},
    {tables::kLibrary, tables::kPackage, kLibraryColumns},
    {tables::kDevelopment, tables::kPackage, kDevelopmentColumns},
    {tables::kDocumentation, tables::kPackage, kDocumentationColumns},
    {tables::kManual, tables::kDocumentation, {}},
    {tables::kProgram, tables::kPackage, kProgramColumns},
    {tables::kDependency, nullptr, kDependencyColumns},
};

struct IndexSpec {
  char16_t const* name;
  char16_t const* table;
  LORV_INDEXED_COLUMN column;
  bool unique;
};

// The two indexes over Debian.Package cover the packages of all tables below it.
constexpr IndexSpec kIndexes[] = {
    {indexes::kMaintainerByContact, tables::kMaintainer, {u"Contact", 1}, true},
    {indexes::kPackageByKey, tables::kPackage, {u"Key", 1}, true},
    {indexes::kPackageBySize, tables::kPackage, {u"InstalledSize", 0}, false},
    {indexes::kDependencyBySource, tables::kDependency, {u"Source", 1}, false},
    {indexes::kDependencyByTarget, tables::kDependency, {u"Target", 1}, false},
};

void CreateTable(Session& session, TableSpec const& table) {
  std::vector<LORV_COLUMN_DEFINITION_NAMES> definitions;
  for (ColumnSpec const& column : table.columns) {
    definitions.push_back(
        {column.type, column.target, static_cast<uint8_t>(column.nullable), column.name});
  }
  definitions.push_back({0, nullptr, 0, nullptr});
  session.Check(lorv_create_table_by_names(session.context(), table.name, table.base,
                                           definitions.data(), nullptr),
                "creating a table");
}

void CreateIndex(Session& session, IndexSpec const& index) {
  if (IndexId(index.name) != 0) return;
  LORV_INDEXED_COLUMN const columns[] = {index.column, {nullptr, 0}};
  session.Check(
      lorv_create_index_by_names(session.context(), index.name, index.table, columns, index.unique),
      "creating an index");
}

// Asks for the handles of one table.
class HandleSource {
 public:
  HandleSource(Session& session, char16_t const* table) : session_(session), table_(table) {}

  CreateInfo const* Create() const {
    CreateInfo* handle = nullptr;
    session_.Check(lorv_crud_GetCreateHandle(session_.context(), table_, &handle),
                   "asking for a create handle");
    return handle;
  }

  uint64_t TypeId() const {
    uint64_t type_id = 0;
    session_.Check(lorv_crud_GetTypeId(session_.context(), table_, &type_id),
                   "asking for a type id");
    return type_id;
  }

  Property operator()(char16_t const* property) const {
    PropertyAccessInfo* handle = nullptr;
    session_.Check(lorv_crud_GetPropertyHandle(session_.context(), table_, property, &handle),
                   "asking for a property");
    return handle;
  }

 private:
  Session& session_;
  char16_t const* table_;
};

PackageHandles PackageHandlesOf(Session& session, Kind kind) {
  HandleSource const of(session, TableOf(kind));
  PackageHandles handles{};
  handles.create = of.Create();
  handles.type_id = of.TypeId();
  handles.key = of(u"Key");
  handles.name = of(u"Name");
  handles.architecture = of(u"Architecture");
  handles.version = of(u"Version");
  handles.epoch = of(u"Epoch");
  handles.section = of(u"Section");
  handles.priority = of(u"Priority");
  handles.maintainer = of(u"Maintainer");
  handles.summary = of(u"Summary");
  handles.homepage = of(u"Homepage");
  handles.installed = of(u"Installed");
  handles.essential = of(u"Essential");
  handles.installed_size = of(u"InstalledSize");
  handles.download_size = of(u"DownloadSize");
  handles.compression = of(u"Compression");
  handles.digest = of(u"Digest");
  handles.configuration = of(u"Configuration");
  if (kind == Kind::kLibrary) handles.library_version = of(u"LibraryVersion");
  if (kind == Kind::kDevelopment) handles.runtime = of(u"Runtime");
  if (kind == Kind::kDocumentation || kind == Kind::kManual) {
    handles.documents = of(u"Documents");
  }
  if (kind == Kind::kProgram) handles.configuration_files = of(u"ConfigurationFiles");
  return handles;
}

MaintainerHandles MaintainerHandlesOf(Session& session) {
  HandleSource const of(session, tables::kMaintainer);
  return {of.Create(), of(u"Contact"), of(u"Name"), of(u"Email")};
}

DependencyHandles DependencyHandlesOf(Session& session) {
  HandleSource const of(session, tables::kDependency);
  return {of.Create(),     of(u"Source"),     of(u"Target"), of(u"TargetName"),
          of(u"Relation"), of(u"Constraint"), of(u"Group"),  of(u"Alternative")};
}

}  // namespace

std::span<TableSpec const> AllTables() { return kTables; }

TableSpec const* FindTable(std::u16string_view name) {
  auto const found = std::find_if(std::begin(kTables), std::end(kTables),
                                  [&](TableSpec const& table) { return table.name == name; });
  return found == std::end(kTables) ? nullptr : found;
}

char16_t const* TableOf(Kind kind) {
  constexpr char16_t const* kNames[kKinds] = {tables::kPackage,     tables::kLibrary,
                                              tables::kDevelopment, tables::kDocumentation,
                                              tables::kManual,      tables::kProgram};
  return kNames[static_cast<std::size_t>(kind)];
}

void CreateSchema(Session& session) {
  for (TableSpec const& table : kTables) CreateTable(session, table);
  for (IndexSpec const& index : kIndexes) CreateIndex(session, index);
}

void RefuseEvolved(Session& session, std::string const& directory) {
  Transaction const transaction(session, Transaction::Access::kReadOnly);
  if (metalayer::RawView::ByRawViewPK2fullname(tables::kHeaders).is_null()) return;
  throw std::runtime_error("the schema in " + directory +
                           " was evolved: its tables are no longer those that packages are loaded "
                           "into and asked of. Use the directory that it is a copy of.");
}

Handles::Handles(Session& session)
    : maintainer(MaintainerHandlesOf(session)), dependency(DependencyHandlesOf(session)) {
  for (std::size_t kind = 0; kind < kKinds; ++kind) {
    package[kind] = PackageHandlesOf(session, static_cast<Kind>(kind));
  }
}

PackageHandles const* Handles::OfType(uint64_t type_id) const {
  auto const found =
      std::find_if(package.begin(), package.end(),
                   [&](PackageHandles const& handles) { return handles.type_id == type_id; });
  return found == package.end() ? nullptr : &*found;
}

Indexes::Indexes()
    : maintainer_by_contact(IndexId(indexes::kMaintainerByContact)),
      package_by_key(IndexId(indexes::kPackageByKey)),
      package_by_size(IndexId(indexes::kPackageBySize)),
      dependency_by_source(IndexId(indexes::kDependencyBySource)),
      dependency_by_target(IndexId(indexes::kDependencyByTarget)) {}

}  // namespace packages
