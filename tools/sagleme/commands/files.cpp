#include "commands/files.h"

#include <fmt/format.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>

#include "base/failure.h"

namespace tool {

std::unique_ptr<std::istream> OpenFile(std::string const& name) {
  if (name == "-") return std::make_unique<std::istream>(std::cin.rdbuf());
  if (std::filesystem::is_directory(name)) {
    throw Failure(Exit::kUsage, fmt::format("cannot read {}: it is a directory", name));
  }
  auto file = std::make_unique<std::ifstream>(name, std::ios::binary);
  if (!*file) {
    throw Failure(Exit::kUsage, fmt::format("cannot read {}: {}", name, std::strerror(errno)));
  }
  return file;
}

std::string ReadFile(std::string const& name) {
  auto const file = OpenFile(name);
  return {std::istreambuf_iterator<char>(*file), std::istreambuf_iterator<char>()};
}

}  // namespace tool
