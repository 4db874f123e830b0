#ifndef SAGLEME_HOST_DATA_DUMP_READER_H
#define SAGLEME_HOST_DATA_DUMP_READER_H

// Reads a dump twice: once to see whether it is whole and which identities it has, before anything
// is made of it, and once for its objects. What comes through a pipe is kept in a file meanwhile.

#include <fstream>
#include <istream>
#include <memory>
#include <sagleme/schema_document.hpp>
#include <span>
#include <string>
#include <vector>

#include "data/flat_json.h"
#include "data/text_input.h"

namespace sagleme {

struct DumpedObject {
  std::size_t table = 0;  // its position in the schema
  ObjectId id;
};

class DumpReader {
 public:
  // `source` names the dump in messages, `scratch` the file that keeps what a pipe brings. What is
  // wrong with the dump is Failure of kBadData, with the line, from every call.
  DumpReader(std::istream& input, std::string source, std::string scratch);

  SchemaDoc const& schema() const { return schema_; }
  // The first pass: calls `each` with the identity of every object, and sees that none is missing.
  template <typename Each>
  void Survey(Each&& each) {
    DumpedObject object;
    while (NextHead(&object)) each(object);
    CheckEnd();
    Rewind();
  }
  std::uint64_t objects() const { return objects_; }

  // The second pass. False when there is no further object.
  bool Next(DumpedObject* object);
  // Of the object read last.
  std::span<RowValue const> values() const { return values_; }
  // Complains about the line read last.
  [[noreturn]] void Refuse(std::string const& what) const;
  // Throws for the line of the first object for which `is` holds. REQUIRES: there is one, and all
  // were read.
  template <typename Is>
  [[noreturn]] void RefuseObject(std::string const& what, Is&& is) {
    Rewind();
    DumpedObject object;
    while (Next(&object) && !is(object.id)) {
    }
    Refuse(what);
  }
  // Complains about the dump as a whole.
  [[noreturn]] void RefuseAll(std::string const& what) const;

 private:
  bool NextHead(DumpedObject* object);
  bool TakeHead(std::string_view& rest, DumpedObject* object) const;
  bool TakeLine(DumpedObject* object);
  void ParseLine(DumpedObject* object);
  void NextLine();
  bool AtEnd() const { return line_.starts_with("{\"end\":"); }
  void ReadSchemaLine();
  void CheckEnd();
  void Rewind();

  std::istream* input_;
  std::string source_;
  std::string scratch_;
  std::fstream kept_;
  bool pipe_ = false;
  std::unique_ptr<TextInput> text_;
  std::string_view line_;
  std::size_t line_number_ = 0;
  SchemaDoc schema_;
  FlatJson json_;
  std::vector<RowValue> values_;
  std::vector<std::uint64_t> by_table_;
  std::uint64_t objects_ = 0;
};

}  // namespace sagleme

#endif
