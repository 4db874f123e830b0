#include "copy.h"

#include <lscoredb/host.h>

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

}  // namespace

std::string CopyForEvolution(std::string const& directory) {
  if (!sagleme::Database::ExistsIn(directory)) {
    throw sagleme::Error(LSCOREDB_NOT_A_DATABASE, "There is no database in " + directory + ".");
  }
  auto const database = OpenKernel(directory);
  std::string target = WithoutSlash(directory) + kSuffix;
  if (fs::exists(target)) RemoveDatabase(target);
  sagleme::detail::CheckKernel(lscoredb_copy(database.get(), target.c_str()));
  return target;
}

void RemoveDatabase(std::string const& directory) {
  for (fs::directory_entry const& entry : fs::directory_iterator(directory)) {
    if (IsKernelFile(entry.path())) continue;
    throw std::runtime_error(directory + " holds other things than a database and is left alone");
  }
  fs::remove_all(directory);
}

}  // namespace packages
