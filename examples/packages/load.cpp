#include "load.h"

#include <algorithm>
#include <map>
#include <set>
#include <unordered_map>
#include <vector>

#include "link.h"
#include "objects.h"
#include "package.h"
#include "progress.h"
#include "schema.h"
#include "text.h"

namespace packages {
namespace {

// A package that is known by name but not there, not even with its configuration.
bool IsNotInstalled(Stanza const& stanza) {
  return stanza.Value("Status").ends_with(" not-installed");
}

struct Survey {
  int64_t stanzas = 0;
  std::set<std::string, std::less<>> shared_names;  // names with several architectures
};

Survey SurveyOf(ControlFile& file, LoadOptions const& options) {
  Survey survey;
  std::unordered_map<std::string, std::string> architectures;
  for (Stanza stanza; file.Next(stanza); ++survey.stanzas) {
    if (options.is_interrupted()) throw Interrupted();
    std::string const name(stanza.Value("Package"));
    std::string const architecture(stanza.Value("Architecture"));
    auto const [known, is_new] = architectures.try_emplace(name, architecture);
    if (!is_new && known->second != architecture) survey.shared_names.insert(name);
  }
  file.Rewind();
  return survey;
}

class Loader {
 public:
  Loader(Session& session, ControlFile& file, LoadOptions const& options, Survey survey)
      : session_(session),
        file_(file),
        options_(options),
        survey_(std::move(survey)),
        handles_(session),
        progress_("loading packages", survey_.stanzas) {}

  LoadResult Run() {
    while (LoadBatch()) {
    }
    return result_;
  }

 private:
  bool LoadBatch();
  bool LoadStanza(Stanza const& stanza);
  void Complain(Problem const& problem);

  void LoadPackage(Package const& package);
  std::string KeyOf(Package const& package) const;
  LS_OBJ_REF FindExisting(Package const& package, std::string const& key) const;
  Object Store(Package const& package, LS_OBJ_REF const& existing);
  void Replace(LS_OBJ_REF const& old, LS_OBJ_REF const& by);
  void WritePackage(Object& object, Package const& package, std::string const& key);
  void WriteOwnProperties(Object& object, Package const& package);
  void WriteDependencies(LS_OBJ_REF const& source, Package const& package);
  LS_OBJ_REF Maintainer(std::string const& contact);
  LS_OBJ_REF NewMaintainer(std::string const& contact);

  Session& session_;
  ControlFile& file_;
  LoadOptions const& options_;
  Survey const survey_;
  Handles const handles_;
  Indexes const indexes_;
  std::map<std::string, LS_OBJ_REF> maintainers_;  // met in committed batches and in this one
  LoadResult batch_;                               // counts of the running transaction
  LoadResult result_;
  Progress progress_;
};

// One transaction. False at the end of the file.
bool Loader::LoadBatch() {
  Transaction transaction(session_);
  batch_ = LoadResult();
  bool is_whole = true;
  int64_t stanzas = 0;
  Stanza stanza;
  while (stanzas < options_.batch && file_.Next(stanza)) {
    if (options_.is_interrupted()) throw Interrupted();
    ++stanzas;
    is_whole = LoadStanza(stanza) && is_whole;
  }
  if (stanzas == 0) return false;
  if (is_whole) {
    transaction.Commit();
    result_.added += batch_.added;
    result_.updated += batch_.updated;
    result_.not_installed += batch_.not_installed;
  } else {
    maintainers_.clear();
    result_.not_kept += stanzas;
  }
  progress_.Advance(stanzas);
  return true;
}

// False for a malformed stanza.
bool Loader::LoadStanza(Stanza const& stanza) {
  if (!stanza.problem && IsNotInstalled(stanza)) {
    ++batch_.not_installed;
    return true;
  }
  try {
    LoadPackage(PackageOf(stanza));
    return true;
  } catch (Malformed const& malformed) {
    Complain({malformed.line, malformed.what()});
    return false;
  }
}

void Loader::Complain(Problem const& problem) {
  ++result_.malformed;
  progress_.Finish();
  options_.complain(file_.path() + ":" + std::to_string(problem.line) + ": " + problem.text);
}

void Loader::LoadPackage(Package const& package) {
  std::string const key = KeyOf(package);
  LS_OBJ_REF const existing = FindExisting(package, key);
  Object object = Store(package, existing);
  WritePackage(object, package, key);
  WriteDependencies(object.ref(), package);
  ++(IsNull(existing) ? batch_.added : batch_.updated);
}

std::string Loader::KeyOf(Package const& package) const {
  bool const is_shared = survey_.shared_names.contains(package.name);
  return is_shared ? package.name + ":" + package.architecture : package.name;
}

// An earlier file may have given the package the other form of its key.
LS_OBJ_REF Loader::FindExisting(Package const& package, std::string const& key) const {
  LS_OBJ_REF const same = FindByText(indexes_.package_by_key, key);
  if (!IsNull(same)) return same;
  bool const key_is_name = key == package.name;
  std::string const other = key_is_name ? package.name + ":" + package.architecture : package.name;
  LS_OBJ_REF const found = FindByText(indexes_.package_by_key, other);
  if (IsNull(found) || key_is_name) return found;
  PackageHandles const* const handles = handles_.OfType(metalayer::crud::GetObjectTypeId(found));
  bool const is_same_build =
      handles != nullptr &&
      Object(session_, found).GetText(handles->architecture) == package.architecture;
  return is_same_build ? found : LS_OBJ_REF{};
}

// The object for the package: the existing one, unless the package has moved to another table.
Object Loader::Store(Package const& package, LS_OBJ_REF const& existing) {
  PackageHandles const& handles = handles_.Of(package.kind);
  if (!IsNull(existing) && metalayer::crud::GetObjectTypeId(existing) == handles.type_id) {
    return Object(session_, existing);
  }
  Object made = Object::Create(session_, handles.create);
  if (!IsNull(existing)) Replace(existing, made.ref());
  return made;
}

// What depends on `old` or belongs to it is handed to `by`, and `old` is deleted.
void Loader::Replace(LS_OBJ_REF const& old, LS_OBJ_REF const& by) {
  EachReferring(indexes_.dependency_by_target, old, [&](LS_OBJ_REF const& dependency) {
    Object(session_, dependency).SetRef(handles_.dependency.target, by);
    return true;
  });
  EachReferring(indexes_.dependency_by_source, old, [&](LS_OBJ_REF const& dependency) {
    Object(session_, dependency).SetRef(handles_.dependency.source, by);
    return true;
  });
  Object(session_, old).Delete();
}

void Loader::WritePackage(Object& object, Package const& package, std::string const& key) {
  PackageHandles const& handles = handles_.Of(package.kind);
  object.SetText(handles.key, key);
  object.SetText(handles.name, package.name);
  object.SetText(handles.architecture, package.architecture);
  object.SetText(handles.version, package.version);
  object.SetLong(handles.epoch, package.epoch);
  object.SetText(handles.section, package.section);
  object.SetText(handles.priority, package.priority);
  object.SetRef(handles.maintainer, Maintainer(package.maintainer));
  object.SetText(handles.summary, package.summary);
  object.SetText(handles.homepage, package.homepage);
  object.SetBool(handles.installed, package.installed);
  object.SetBool(handles.essential, package.essential);
  object.SetULong(handles.installed_size, package.installed_size);
  object.SetOptionalULong(handles.download_size, package.download_size);
  object.SetOptionalDouble(handles.compression, package.compression);
  object.SetBinary(handles.digest, package.digest);
  object.SetBinary(handles.configuration, package.configuration);
  WriteOwnProperties(object, package);
}

// What only one of the tables has. References to other packages are drawn later.
void Loader::WriteOwnProperties(Object& object, Package const& package) {
  PackageHandles const& handles = handles_.Of(package.kind);
  if (package.kind == Kind::kLibrary) {
    object.SetText(handles.library_version, LibraryVersion(package.name));
  }
  if (package.kind == Kind::kProgram) {
    object.SetLong(handles.configuration_files, package.configuration_files);
  }
}

void Loader::WriteDependencies(LS_OBJ_REF const& source, Package const& package) {
  DependencyHandles const& handles = handles_.dependency;
  EachReferring(indexes_.dependency_by_source, source, [&](LS_OBJ_REF const& old) {
    Object(session_, old).Delete();
    return true;
  });
  for (Dependency const& dependency : package.dependencies) {
    Object object = Object::Create(session_, handles.create);
    object.SetRef(handles.source, source);
    object.SetText(handles.target_name, dependency.target);
    object.SetText(handles.relation, dependency.relation);
    object.SetText(handles.constraint, dependency.constraint);
    object.SetLong(handles.group, dependency.group);
    object.SetLong(handles.alternative, dependency.alternative);
  }
}

LS_OBJ_REF Loader::Maintainer(std::string const& contact) {
  if (contact.empty()) return {};
  auto const [known, is_new] = maintainers_.try_emplace(contact);
  if (!is_new) return known->second;
  known->second = FindByText(indexes_.maintainer_by_contact, contact);
  if (IsNull(known->second)) known->second = NewMaintainer(contact);
  return known->second;
}

// "Name <address>"
LS_OBJ_REF Loader::NewMaintainer(std::string const& contact) {
  std::string_view const text = contact;
  std::size_t const open = std::min(text.find('<'), text.size());
  std::string_view address = text.substr(std::min(open + 1, text.size()));
  address = address.substr(0, address.find('>'));
  MaintainerHandles const& handles = handles_.maintainer;
  Object object = Object::Create(session_, handles.create);
  object.SetText(handles.contact, contact);
  object.SetText(handles.name, Trim(text.substr(0, open)));
  object.SetText(handles.email, address);
  return object.ref();
}

}  // namespace

LoadResult Load(Session& session, ControlFile& file, LoadOptions const& options) {
  Survey survey = SurveyOf(file, options);
  auto loader = [&] {
    Transaction transaction(session, Transaction::Access::kReadOnly);
    return Loader(session, file, options, std::move(survey));
  }();
  LoadResult result = loader.Run();
  LinkResult const links = Link(session, options);
  result.linked = links.linked;
  result.unlinked = links.unlinked;
  return result;
}

}  // namespace packages
