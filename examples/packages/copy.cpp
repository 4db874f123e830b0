#include "copy.h"

#include <lscoredb/host.h>

#include <algorithm>
#include <filesystem>
#include <memory>
#include <sagleme/host/database.hpp>

namespace packages {
namespace {

namespace fs = std::filesystem;

constexpr char const* kSuffix = ".evolved";

struct Closer {
  void operator()(lscoredb* database) const { lscoredb_close(database); }
};

std::unique_ptr<lscoredb, Closer> OpenKernel(std::string const& directory) {
  lscoredb* database = nullptr;
  sagleme::detail::CheckKernel(lscoredb_open(directory.c_str(), nullptr, &database));
  return std::unique_ptr<lscoredb, Closer>(database);
}

std::string WithoutSlash(std::string directory) {
  while (directory.size() > 1 && directory.back() == '/') directory.pop_back();
  return directory;
}

// Data and locks; the kernel may have more locks than one.
bool IsKernelFile(fs::path const& file) {
  return file.extension() == ".mdb" || file.extension() == ".lock";
}

std::string UrlOfCopy(std::string url) {
  std::size_t const schema = url.find("schema=");
  if (schema == url.npos) {
    return url + (url.find('?') == url.npos ? '?' : '&') + "schema=sagleme_evolved";
  }
  return url.insert(std::min(url.find('&', schema), url.size()), "_evolved");
}

// Where the copy goes; nothing is there.
std::string PrepareTarget(std::string const& directory) {
  bool const on_server = sagleme::IsServerUrl(directory);
  std::string target = on_server ? UrlOfCopy(directory) : WithoutSlash(directory) + kSuffix;
  if (!on_server && fs::exists(target)) RemoveDatabase(target);
  if (on_server && sagleme::Database::ExistsIn(target)) {
    throw std::runtime_error(sagleme::ShownPlace(target) + " exists; drop its schema first");
  }
  return target;
}

}  // namespace

std::string CopyForEvolution(std::string const& directory) {
  if (!sagleme::Database::ExistsIn(directory)) {
    throw sagleme::Error(
        LSCOREDB_NOT_A_DATABASE,
        "There is no database " + sagleme::detail::WithPreposition(directory) + ".");
  }
  auto const database = OpenKernel(directory);
  std::string const target = PrepareTarget(directory);
  sagleme::detail::CheckKernel(lscoredb_copy(database.get(), target.c_str()));
  return target;
}

void RemoveDatabase(std::string const& directory) {
  if (sagleme::IsServerUrl(directory)) return;
  for (fs::directory_entry const& entry : fs::directory_iterator(directory)) {
    if (IsKernelFile(entry.path())) continue;
    throw std::runtime_error(directory + " holds other things than a database and is left alone");
  }
  fs::remove_all(directory);
}

}  // namespace packages
