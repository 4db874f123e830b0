#ifndef PACKAGES_PACKAGE_H
#define PACKAGES_PACKAGE_H

// One package as the file describes it, its fields checked and typed.

#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "control_file.h"

namespace packages {

// The tables that hold packages. Every package is in one of the last five.
enum class Kind { kPackage, kLibrary, kDevelopment, kDocumentation, kManual, kProgram };
inline constexpr std::size_t kKinds = 6;

// "libc6 (>= 2.36)", one alternative of one group of a relation field.
struct Dependency {
  std::string relation;    // "Depends", "Recommends", ...
  int64_t group;           // alternatives share a group
  int64_t alternative;     // from 0
  std::string target;      // package name without architecture
  std::string constraint;  // ">= 2.36", empty for any version
};

struct Package {
  Kind kind = Kind::kProgram;
  std::string name;
  std::string architecture;
  std::string version;
  int64_t epoch = 0;
  std::string section;
  std::string priority;
  std::string maintainer;
  std::string summary;
  std::string homepage;
  bool installed = false;
  bool essential = false;
  uint64_t installed_size = 0;            // KiB
  std::optional<uint64_t> download_size;  // bytes
  std::optional<double> compression;      // download size over installed size
  std::vector<uint8_t> digest;            // of the package file, empty when not given
  std::vector<uint8_t> configuration;     // MD5 sums of the configuration files, one after another
  int64_t configuration_files = 0;
  std::vector<Dependency> dependencies;
};

// A stanza that is no package. `line` is that of the field.
struct Malformed : std::runtime_error {
  Malformed(int64_t at, std::string const& text) : runtime_error(text), line(at) {}
  int64_t line;
};

Package PackageOf(Stanza const& stanza);

// The library version in a package name: "3" for libssl3, "2.0-0" for libglib2.0-0; empty for none.
std::string LibraryVersion(std::string_view name);

}  // namespace packages

#endif
