#include "package.h"

#include <array>
#include <charconv>

#include "text.h"

namespace packages {
namespace {

constexpr std::array kRelations = {"Pre-Depends", "Depends", "Recommends", "Suggests"};

// What is looked up by index has to fit in a key; real names stay far below.
constexpr std::size_t kLongestKey = 250;

void CheckLength(int64_t line, std::string_view what, std::string_view text) {
  if (text.size() <= kLongestKey) return;
  throw Malformed(line,
                  std::string(what) + " is longer than " + std::to_string(kLongestKey) + " bytes");
}

void CheckLength(Stanza const& stanza, std::string_view name) {
  Stanza::Field const* const field = stanza.Find(name);
  if (field != nullptr) CheckLength(field->line, field->name, field->value);
}

std::string Required(Stanza const& stanza, std::string_view name) {
  std::string_view const value = stanza.Value(name);
  if (value.empty()) throw Malformed(stanza.line, "the field " + std::string(name) + " is missing");
  return std::string(value);
}

std::optional<uint64_t> Number(Stanza const& stanza, std::string_view name) {
  Stanza::Field const* const field = stanza.Find(name);
  if (field == nullptr) return std::nullopt;
  uint64_t number = 0;
  char const* const end = field->value.data() + field->value.size();
  auto const [stop, error] = std::from_chars(field->value.data(), end, number);
  if (error != std::errc() || stop != end) {
    throw Malformed(field->line, field->name + " is no number: " + field->value);
  }
  return number;
}

bool Flag(Stanza const& stanza, std::string_view name) {
  Stanza::Field const* const field = stanza.Find(name);
  if (field == nullptr || field->value == "no") return false;
  if (field->value == "yes") return true;
  throw Malformed(field->line, field->name + " is neither yes nor no: " + field->value);
}

int HexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// False, and nothing appended, when `text` is not pairs of hexadecimal digits.
bool AppendHex(std::string_view text, std::vector<uint8_t>& out) {
  std::vector<uint8_t> bytes;
  for (std::size_t i = 0; i < text.size(); i += 2) {
    int const high = HexDigit(text[i]);
    int const low = i + 1 < text.size() ? HexDigit(text[i + 1]) : -1;
    if (high < 0 || low < 0) return false;
    bytes.push_back(static_cast<uint8_t>(high << 4 | low));
  }
  out.insert(out.end(), bytes.begin(), bytes.end());
  return true;
}

std::vector<uint8_t> Digest(Stanza const& stanza) {
  Stanza::Field const* field = stanza.Find("SHA256");
  if (field == nullptr) field = stanza.Find("MD5sum");
  std::vector<uint8_t> digest;
  if (field != nullptr && !AppendHex(field->value, digest)) {
    throw Malformed(field->line, field->name + " is not hexadecimal");
  }
  return digest;
}

// Lines of " /etc/file 0123...": the digest is the second word; files that wait for their first
// installation have a word in its place.
void ReadConfiguration(Stanza const& stanza, Package& package) {
  Split(stanza.Value("Conffiles"), '\n', [&](std::string_view line) {
    ++package.configuration_files;
    std::size_t const blank = line.find(' ');
    if (blank == std::string_view::npos) return;
    std::string_view const rest = Trim(line.substr(blank));
    AppendHex(rest.substr(0, rest.find(' ')), package.configuration);
  });
}

int64_t Epoch(Stanza const& stanza, std::string const& version) {
  std::size_t const colon = version.find(':');
  if (colon == std::string::npos) return 0;
  int64_t epoch = 0;
  auto const [stop, error] = std::from_chars(version.data(), version.data() + colon, epoch);
  if (error != std::errc() || stop != version.data() + colon) {
    throw Malformed(stanza.Find("Version")->line, "Version has no number before its colon");
  }
  return epoch;
}

// "libc6:any (>= 2.36) [amd64] <!nocheck>"
Dependency ParseDependency(std::string_view text) {
  Dependency dependency{};
  std::string_view const name = text.substr(0, text.find_first_of(" \t\n(["));
  dependency.target = name.substr(0, name.find(':'));
  std::size_t const open = text.find('(');
  std::size_t const close = text.find(')', open);
  if (open != std::string_view::npos && close != std::string_view::npos) {
    dependency.constraint = Trim(text.substr(open + 1, close - open - 1));
  }
  return dependency;
}

void ReadDependencies(Stanza const& stanza, Package& package) {
  for (char const* const relation : kRelations) {
    Stanza::Field const* const field = stanza.Find(relation);
    if (field == nullptr) continue;
    int64_t group = 0;
    Split(field->value, ',', [&](std::string_view alternatives) {
      int64_t alternative = 0;
      Split(alternatives, '|', [&](std::string_view text) {
        Dependency dependency = ParseDependency(text);
        if (dependency.target.empty()) {
          throw Malformed(field->line, field->name + " names no package: " + std::string(text));
        }
        CheckLength(field->line, "a name in " + field->name, dependency.target);
        dependency.relation = relation;
        dependency.group = group;
        dependency.alternative = alternative++;
        package.dependencies.push_back(std::move(dependency));
      });
      ++group;
    });
  }
}

bool EndsWith(std::string_view text, std::string_view end) { return text.ends_with(end); }

bool IsManual(std::string const& name) {
  return EndsWith(name, "-man") || EndsWith(name, "manpages") || EndsWith(name, "manpages-dev");
}

Kind KindOf(Package const& package) {
  // An archive area precedes the section: "non-free/libs".
  std::string_view const section =
      std::string_view(package.section).substr(package.section.rfind('/') + 1);
  if (IsManual(package.name)) return Kind::kManual;
  if (section == "doc" || EndsWith(package.name, "-doc")) return Kind::kDocumentation;
  if (section == "libdevel" || EndsWith(package.name, "-dev")) return Kind::kDevelopment;
  if (section == "libs" || section == "oldlibs") return Kind::kLibrary;
  return Kind::kProgram;
}

void CheckText(Stanza const& stanza) {
  for (Stanza::Field const& field : stanza.fields) {
    if (!IsStorable(field.value)) throw Malformed(field.line, field.name + " is not UTF-8");
  }
}

}  // namespace

std::string LibraryVersion(std::string_view name) {
  if (!name.starts_with("lib")) return {};
  std::size_t const digit = name.find_first_of("0123456789", 3);
  return digit == std::string_view::npos ? std::string() : std::string(name.substr(digit));
}

Package PackageOf(Stanza const& stanza) {
  if (stanza.problem) throw Malformed(stanza.problem->line, stanza.problem->text);
  CheckText(stanza);
  for (char const* const key : {"Package", "Architecture", "Maintainer"}) CheckLength(stanza, key);
  Package package;
  package.name = Required(stanza, "Package");
  package.architecture = Required(stanza, "Architecture");
  package.version = Required(stanza, "Version");
  package.epoch = Epoch(stanza, package.version);
  package.section = stanza.Value("Section");
  package.priority = stanza.Value("Priority");
  package.maintainer = stanza.Value("Maintainer");
  std::string_view const description = stanza.Value("Description");
  package.summary = description.substr(0, description.find('\n'));
  package.homepage = stanza.Value("Homepage");
  package.installed = EndsWith(stanza.Value("Status"), " installed");
  package.essential = Flag(stanza, "Essential");
  package.installed_size = Number(stanza, "Installed-Size").value_or(0);
  package.download_size = Number(stanza, "Size");
  if (package.download_size && package.installed_size != 0) {
    package.compression = static_cast<double>(*package.download_size) /
                          (static_cast<double>(package.installed_size) * 1024);
  }
  package.digest = Digest(stanza);
  ReadConfiguration(stanza, package);
  ReadDependencies(stanza, package);
  package.kind = KindOf(package);
  return package;
}

}  // namespace packages
