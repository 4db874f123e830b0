#include <fmt/format.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sagleme/diagram.hpp>
#include <sagleme/failure.hpp>
#include <sagleme/value_text.hpp>

namespace sagleme {
namespace {

std::string XmlText(std::string const& text) {
  std::string escaped;
  for (char const each : Visible(text)) {
    switch (each) {
      case '<':
        escaped += "&lt;";
        break;
      case '>':
        escaped += "&gt;";
        break;
      case '&':
        escaped += "&amp;";
        break;
      case '"':
        escaped += "&quot;";
        break;
      default:
        escaped += each;
    }
  }
  return escaped;
}

// A quoted name for Graphviz.
std::string DotName(std::string const& text) {
  std::string quoted = "\"";
  for (char const each : Visible(text)) {
    if (each == '"' || each == '\\') quoted += '\\';
    quoted += each;
  }
  return quoted + "\"";
}

std::string DotNode(TableDoc const& table) {
  std::string rows =
      fmt::format("<tr><td bgcolor=\"#dde6f0\"><b>{}</b></td></tr>", XmlText(table.name));
  for (ColumnDoc const& column : table.columns) {
    rows += fmt::format(
        "<tr><td align=\"left\">{} <i>{}</i></td></tr>", XmlText(column.name),
        column.target.empty() ? std::string(TypeName(column.type)) : XmlText(column.target));
  }
  return fmt::format(
      "  {} [label=<<table border=\"0\" cellborder=\"1\" cellspacing=\"0\">{}</table>>];\n",
      DotName(table.name), rows);
}

std::string MermaidName(std::string const& text) {
  std::string name;
  for (char const each : text) {
    auto const byte = static_cast<unsigned char>(each);
    bool const plain = std::isalnum(byte) != 0 || byte >= 0x80;
    name += plain ? each : '_';
  }
  return name;
}

}  // namespace

std::string DotDiagram(SchemaDoc const& schema) {
  std::string text =
      "digraph schema {\n  rankdir=RL;\n  node [shape=plain, fontname=\"sans-serif\"];\n";
  for (TableDoc const& table : schema.tables) text += DotNode(table);
  for (TableDoc const& table : schema.tables) {
    if (schema.Find(table.base) != nullptr) {
      text += fmt::format("  {} -> {} [arrowhead=onormal];\n", DotName(table.name),
                          DotName(table.base));
    }
    for (ColumnDoc const& column : table.columns) {
      if (schema.Find(column.target) == nullptr) continue;  // not drawn
      text += fmt::format("  {} -> {} [style=dashed, constraint=false, label={}];\n",
                          DotName(table.name), DotName(column.target), DotName(column.name));
    }
  }
  return text + "}\n";
}

std::string MermaidDiagram(SchemaDoc const& schema) {
  std::string text = "classDiagram\n";
  for (TableDoc const& table : schema.tables) {
    std::string const name = MermaidName(table.name);
    text += fmt::format("  class {}[\"{}\"]\n", name, XmlText(table.name));
    for (ColumnDoc const& column : table.columns) {
      text += fmt::format("  {} : {} {}\n", name, TypeName(column.type), MermaidName(column.name));
    }
  }
  for (TableDoc const& table : schema.tables) {
    std::string const name = MermaidName(table.name);
    if (schema.Find(table.base) != nullptr)
      text += fmt::format("  {} <|-- {}\n", MermaidName(table.base), name);
    for (ColumnDoc const& column : table.columns) {
      if (schema.Find(column.target) == nullptr) continue;  // not drawn
      text += fmt::format("  {} ..> {} : {}\n", name, MermaidName(column.target),
                          MermaidName(column.name));
    }
  }
  return text;
}

namespace {

// A file that is removed with the object.
class TemporaryFile {
 public:
  explicit TemporaryFile(std::string const& text) {
    path_ = (std::filesystem::temp_directory_path() / "sagleme-XXXXXX").string();
    int const file = mkstemp(path_.data());
    if (file < 0)
      throw Failure(Failure::Kind::kRefused, "cannot make a temporary file in " + path_);
    close(file);
    std::ofstream(path_, std::ios::binary) << text;
  }
  ~TemporaryFile() { unlink(path_.c_str()); }
  TemporaryFile(TemporaryFile const&) = delete;
  TemporaryFile& operator=(TemporaryFile const&) = delete;
  std::string const& path() const { return path_; }

 private:
  std::string path_;
};

}  // namespace

std::string SvgDiagram(SchemaDoc const& schema) {
  TemporaryFile const file(DotDiagram(schema));
  std::FILE* const pipe = popen(("dot -Tsvg '" + file.path() + "' 2>/dev/null").c_str(), "r");
  if (pipe == nullptr) throw Failure(Failure::Kind::kRefused, "cannot run Graphviz");
  std::string svg;
  char buffer[4096];
  for (std::size_t count; (count = std::fread(buffer, 1, sizeof buffer, pipe)) != 0;) {
    svg.append(buffer, count);
  }
  if (pclose(pipe) == 0 && !svg.empty()) return svg;
  throw Failure(Failure::Kind::kRefused, "Graphviz did not draw the diagram",
                "Install it: apt-get install graphviz");
}

}  // namespace sagleme
