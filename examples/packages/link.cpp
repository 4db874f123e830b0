#include "link.h"

#include <algorithm>
#include <functional>
#include <span>
#include <string>
#include <vector>

#include "objects.h"
#include "progress.h"
#include "schema.h"

namespace packages {
namespace {

constexpr std::string_view kDocumentationSuffixes[] = {"-doc", "-man"};

class Linker {
 public:
  Linker(Session& session, LoadOptions const& options)
      : session_(session), options_(options), handles_(session) {}

  std::vector<LS_OBJ_REF> DependenciesWithoutTarget() const;
  std::vector<LS_OBJ_REF> PackagesOf(Kind kind) const;

  // Calls `link` with every object, some hundred in a transaction.
  void InBatches(std::string const& label, std::vector<LS_OBJ_REF> const& objects,
                 std::function<void(Object)> const& link);
  bool LinkDependency(Object dependency) const;
  void LinkDevelopment(Object package) const;
  void LinkDocumentation(Object package) const;

 private:
  PackageHandles const& HandlesOf(LS_OBJ_REF const& package) const;
  void LinkSome(std::span<LS_OBJ_REF const> objects, std::function<void(Object)> const& link);

  Session& session_;
  LoadOptions const& options_;
  Handles const handles_;
  Indexes const indexes_;
};

std::vector<LS_OBJ_REF> Linker::DependenciesWithoutTarget() const {
  std::vector<LS_OBJ_REF> found;
  EachReferring(indexes_.dependency_by_target, {}, [&](LS_OBJ_REF const& dependency) {
    found.push_back(dependency);
    return true;
  });
  return found;
}

std::vector<LS_OBJ_REF> Linker::PackagesOf(Kind kind) const {
  std::vector<LS_OBJ_REF> found;
  EachInSubtree(session_, TableOf(kind), [&](LS_OBJ_REF const& package) {
    found.push_back(package);
    return true;
  });
  return found;
}

void Linker::InBatches(std::string const& label, std::vector<LS_OBJ_REF> const& objects,
                       std::function<void(Object)> const& link) {
  if (objects.empty()) return;
  auto const batch = static_cast<std::size_t>(options_.batch);
  Progress progress(label, static_cast<int64_t>(objects.size()));
  for (std::size_t begin = 0; begin < objects.size(); begin += batch) {
    std::size_t const count = std::min(batch, objects.size() - begin);
    LinkSome(std::span(objects).subspan(begin, count), link);
    progress.Advance(static_cast<int64_t>(count));
  }
}

void Linker::LinkSome(std::span<LS_OBJ_REF const> objects,
                      std::function<void(Object)> const& link) {
  Transaction transaction(session_);
  for (LS_OBJ_REF const& object : objects) {
    if (options_.is_interrupted()) throw Interrupted();
    link(Object(session_, object));
  }
  transaction.Commit();
}

// The table of packages itself when the object's table is none of those below it.
PackageHandles const& Linker::HandlesOf(LS_OBJ_REF const& package) const {
  PackageHandles const* const own = handles_.OfType(metalayer::crud::GetObjectTypeId(package));
  return own == nullptr ? handles_.Of(Kind::kPackage) : *own;
}

bool Linker::LinkDependency(Object dependency) const {
  DependencyHandles const& handles = handles_.dependency;
  LS_OBJ_REF const source = dependency.GetRef(handles.source);
  if (IsNull(source)) return false;
  std::string const architecture = Object(session_, source).GetText(HandlesOf(source).architecture);
  LS_OBJ_REF const target =
      FindPackage(indexes_, dependency.GetText(handles.target_name), architecture);
  if (IsNull(target)) return false;
  dependency.SetRef(handles.target, target);
  return true;
}

// The first library that a development package depends on is the one that it is for.
void Linker::LinkDevelopment(Object package) const {
  uint64_t const library = handles_.Of(Kind::kLibrary).type_id;
  LS_OBJ_REF runtime{};
  EachReferring(indexes_.dependency_by_source, package.ref(), [&](LS_OBJ_REF const& dependency) {
    LS_OBJ_REF const target = Object(session_, dependency).GetRef(handles_.dependency.target);
    bool const is_library = !IsNull(target) && metalayer::crud::GetObjectTypeId(target) == library;
    if (is_library) runtime = target;
    return !is_library;
  });
  package.SetRef(handles_.Of(Kind::kDevelopment).runtime, runtime);
}

void Linker::LinkDocumentation(Object package) const {
  PackageHandles const& handles = HandlesOf(package.ref());
  std::string name = package.GetText(handles.name);
  auto const suffix = std::find_if(
      std::begin(kDocumentationSuffixes), std::end(kDocumentationSuffixes),
      [&](std::string_view each) { return name.size() > each.size() && name.ends_with(each); });
  if (suffix == std::end(kDocumentationSuffixes)) return;
  name.resize(name.size() - suffix->size());
  package.SetRef(handles.documents,
                 FindPackage(indexes_, name, package.GetText(handles.architecture)));
}

}  // namespace

LinkResult Link(Session& session, LoadOptions const& options) {
  std::vector<LS_OBJ_REF> dependencies, development, documentation;
  auto linker = [&] {
    Transaction transaction(session, Transaction::Access::kReadOnly);
    return Linker(session, options);
  }();
  {
    Transaction transaction(session, Transaction::Access::kReadOnly);
    dependencies = linker.DependenciesWithoutTarget();
    development = linker.PackagesOf(Kind::kDevelopment);
    documentation = linker.PackagesOf(Kind::kDocumentation);
  }
  LinkResult result;
  linker.InBatches("drawing dependencies", dependencies, [&](Object dependency) {
    ++(linker.LinkDependency(dependency) ? result.linked : result.unlinked);
  });
  linker.InBatches("drawing libraries", development,
                   [&](Object package) { linker.LinkDevelopment(package); });
  linker.InBatches("drawing documentation", documentation,
                   [&](Object package) { linker.LinkDocumentation(package); });
  return result;
}

}  // namespace packages
