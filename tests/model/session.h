#ifndef SAGLEME_TESTS_MODEL_SESSION_H
#define SAGLEME_TESTS_MODEL_SESSION_H

// A run's hold on a database in one process: which row of the database stands for which row of the
// model, operations carried out through the exported functions, and the comparison of the two.

#include <filesystem>
#include <string>

#include "model/operations.h"
#include "support/database.h"

namespace sagleme_model {

// What a database was seen to give out, by the numbers of the model: identities of rows, tokens of
// columns. It may never change while the row is there.
class Identities {
 public:
  // False when something else was learnt under that number.
  bool Learn(Uid row, std::uint64_t oid) {
    return oids_.try_emplace(row, oid).first->second == oid;
  }
  bool LearnToken(Uid column, std::uint64_t token) {
    return tokens_.try_emplace(column, token).first->second == token;
  }
  std::uint64_t Of(Uid row) const;  // 0: unknown
  Uid RowOf(std::uint64_t oid) const;

  void Save(std::filesystem::path const& file) const;
  static Identities Load(std::filesystem::path const& file);

 private:
  std::map<Uid, std::uint64_t> oids_;
  std::map<Uid, std::uint64_t> tokens_;
};

// What was found otherwise than it should be, one line each.
class Differences {
 public:
  template <typename T>
  void Same(std::string const& what, T const& expected, T const& found) {
    if (!(expected == found))
      Add(what + ": expected " + Print(expected) + ", found " + Print(found));
  }
  void Add(std::string const& line) { text_ += "  " + line + "\n"; }
  bool empty() const { return text_.empty(); }
  std::string const& text() const { return text_; }

 private:
  static std::string Print(Text const& text) { return "\"" + sagleme_test::Utf8(text) + "\""; }
  static std::string Print(Value const& value) { return Describe(value); }
  static std::string Print(std::string const& text) { return text; }
  template <typename Number>
  static std::string Print(Number const& number) requires std::is_arithmetic_v<Number> {
    return std::to_string(number);
  }

  std::string text_;
};

class Session {
 public:
  explicit Session(sagleme_test::Database& database) : database_(database) {}

  std::uint64_t context() const { return database_.context(); }
  Identities& identities() { return identities_; }

  // Carries an operation out. `before` is the model without it.
  Outcome Run(Model const& before, Operation const& operation);
  // Handles follow the catalogue after this, as a binding would have it.
  std::uint32_t RefreshHandles() { return lorv_crud_RefreshIssuedHandles(context()); }

  // Everything that the model tells of the catalogue, against its rows and the kernel's layouts.
  void CompareCatalogue(Model const& model, Differences& differences);
  // All objects and all indexes, the latter by scanning them.
  void CompareObjects(Model const& model, Differences& differences);

 private:
  sagleme_test::Database& database_;
  Identities identities_;
};

// A property handle; the status of asking for it.
std::uint32_t PropertyHandle(std::uint64_t context, Text const& table, Text const& column,
                             PropertyAccessInfo** out);
// Reads a column of the type; null when the kernel says so.
std::uint32_t ReadValue(Session& session, PropertyAccessInfo const* handle, std::uint64_t oid,
                        std::uint8_t type, Value* out);

}  // namespace sagleme_model

#endif
