// Operations and values in words, for the log of a run that failed.

#include <cstdio>
#include <sstream>

#include "model/operations.h"
#include "support/database.h"

namespace sagleme_model {

namespace {

using sagleme_test::Utf8;

std::string Quoted(Text const& text) { return "\"" + Utf8(text) + "\""; }

std::string Flags(bool drop_children, bool force) {
  return std::string(drop_children ? " with children" : "") + (force ? " by force" : "");
}

std::string Columns(std::vector<ColumnDef> const& columns) {
  std::ostringstream out;
  out << " (";
  for (ColumnDef const& column : columns) {
    out << Quoted(column.name) << " " << int{column.type};
    if (column.type_name) out << " " << Quoted(*column.type_name);
    out << (column.nullable ? "; " : " not null; ");
  }
  out << ")";
  return out.str();
}

std::string Parts(std::vector<IndexPart> const& parts) {
  std::string text = " (";
  for (IndexPart const& part : parts) {
    text += Quoted(part.column) + "/" + std::to_string(part.ordinal) +
            (part.ascending ? " up; " : " down; ");
  }
  return text + ")";
}

struct Describer {
  std::string operator()(CreateTable const& o) const {
    char const* const forms[] = {"by names ", "checking types ", "by references "};
    return std::string("create table ") + forms[static_cast<int>(o.form)] + Quoted(o.name) +
           (o.base ? " under " + Quoted(*o.base) : "") + Columns(o.columns);
  }
  std::string operator()(AddColumns const& o) const {
    return "add columns to " + Quoted(o.table) + Columns(o.columns);
  }
  std::string operator()(DropColumn const& o) const {
    return "drop column " + Quoted(o.column) + " of " + Quoted(o.table);
  }
  std::string operator()(RenameColumn const& o) const {
    return "rename column " + Quoted(o.column) + " of " + Quoted(o.table) + " to " +
           Quoted(o.new_name);
  }
  std::string operator()(RenameTable const& o) const {
    return "rename table " + Quoted(o.table) + " to " + Quoted(o.new_name);
  }
  std::string operator()(DropTable const& o) const {
    return "drop table " + Quoted(o.table) + Flags(o.drop_children, o.force);
  }
  std::string operator()(DropTables const& o) const {
    std::string text = "drop tables";
    for (Text const& name : o.tables) text += " " + Quoted(name);
    return text + Flags(o.drop_children, o.force);
  }
  std::string operator()(DropTableCascade const& o) const {
    return "drop table in cascade " + Quoted(o.table);
  }
  std::string operator()(CreateIndex const& o) const {
    char const* const forms[] = {"by names ", "by reference ", "by layout "};
    return std::string("create ") + (o.unique ? "unique " : "") + "index " +
           forms[static_cast<int>(o.form)] + Quoted(o.name) + " on " + Quoted(o.table) +
           Parts(o.parts);
  }
  std::string operator()(DropIndex const& o) const {
    char const* const forms[] = {"by name ", "by table and name ", "by reference "};
    return std::string("drop index ") + forms[static_cast<int>(o.form)] + Quoted(o.name) + " " +
           Quoted(o.table);
  }
  std::string operator()(UpdateReferences const&) const { return "update reference types"; }
  std::string operator()(CleanClasses const&) const { return "clean classes"; }
  std::string operator()(MapClass const& o) const {
    return "map class " + Quoted(o.name) + " to " + Quoted(o.table);
  }
  std::string operator()(MapColumn const& o) const {
    return "map property " + Quoted(o.name) + " of " + Quoted(o.class_name) + " to " +
           Quoted(o.column) + " of " + Quoted(o.table);
  }
  std::string operator()(CreateObject const& o) const {
    return "create object of " + Quoted(o.table);
  }
  std::string operator()(WriteValue const& o) const {
    return "write " + Quoted(o.column) + " of object " + std::to_string(o.object) + ": " +
           Describe(o.value);
  }
  std::string operator()(WriteDefault const& o) const {
    return "write default to " + Quoted(o.column) + " of object " + std::to_string(o.object);
  }
  std::string operator()(DeleteObject const& o) const {
    return "delete object " + std::to_string(o.object);
  }
  std::string operator()(AskProperty const& o) const {
    return "ask for property " + Quoted(o.column) + " of " + Quoted(o.table);
  }
};

struct ValueDescriber {
  std::string operator()(std::monostate) const { return "null"; }
  std::string operator()(Text const& text) const { return Quoted(text); }
  std::string operator()(std::string const& bytes) const {
    std::string text = "bytes";
    for (char const byte : bytes) {
      char digits[8];
      std::snprintf(digits, sizeof digits, " %02x", static_cast<unsigned>(byte & 0xFF));
      text += digits;
    }
    return text;
  }
  std::string operator()(Reference reference) const {
    return "object " + std::to_string(reference.target);
  }
  template <typename Number>
  std::string operator()(Number number) const {
    std::ostringstream out;
    out.precision(17);
    out << number;
    return out.str();
  }
};

}  // namespace

std::string Describe(Operation const& operation) { return std::visit(Describer(), operation); }
std::string Describe(Value const& value) { return std::visit(ValueDescriber(), value); }

}  // namespace sagleme_model
