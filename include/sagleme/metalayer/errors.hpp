#ifndef SAGLEME_METALAYER_ERRORS_HPP
#define SAGLEME_METALAYER_ERRORS_HPP

// Part of the binary interface for makers of bindings; see <sagleme/metalayer.hpp>.
//
// Failures: one exception type that carries one number, and the text of the last failure of a
// context, written before the exception is thrown.

#include <sagleme/statuses.h>

#include <cstddef>
#include <locale>
#include <sagleme/metalayer/context.hpp>
#include <sstream>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

namespace db_util {

// The library's one failure type. Classes derived from it add the names involved.
class SAGLEME_API db_exception {
 public:
  explicit db_exception(unsigned int code) : code_(code) {}
  unsigned int code() const { return code_; }

  // Throws; callers test for a non-zero status first.
  [[noreturn]] static void check(unsigned int code);
  // REQUIRES: an exception is being handled. The code of a db_exception; any other exception
  // passes through.
  static unsigned int rethrow_and_get_error_code();

 private:
  unsigned int code_;
};

}  // namespace db_util

namespace metalayer {

// Throws db_exception with `code`.
[[noreturn]] SAGLEME_API void Throw(unsigned int code);

// ---- error buffers ------------------------------------------------------------------------------

// Set: the thread's next write to an error buffer empties that buffer first.
SAGLEME_API extern constinit thread_local unsigned char tls_clear_errbuf;

// `buf` is an ErrBuffers::Buf*, valid as long as the context is open.
SAGLEME_API unsigned long errbuf_by_ctx(unsigned long context);
SAGLEME_API unsigned long clean_errbuf_by_ctx(unsigned long context);
SAGLEME_API unsigned long errbuf_blt_sz(unsigned long buf, char16_t const* text);
SAGLEME_API void errbuf_blt(unsigned long buf, char16_t const* begin, char16_t const* end);
SAGLEME_API void request_clear_errbuf();
SAGLEME_API bool is_errbuf_clear_requested();

// Writes to the buffer of the context that the thread is in when the writer is created.
class SAGLEME_API ErrBlt {
 public:
  ErrBlt();
  static void buf_clear(unsigned long buf);
  void clear();
  unsigned long buf() const { return buf_; }

  // Copies a range of units through a chunk on the stack. A pending clear request is honoured just
  // before the final chunk, so a message opens with a literal.
  template <typename Iterator>
  void blt(Iterator begin, Iterator end) {
    char16_t chunk[kChunk];
    std::size_t used = 0;
    for (; begin != end; ++begin) {
      if (used == kChunk) {
        errbuf_blt(buf_, chunk, chunk + used);
        used = 0;
      }
      chunk[used++] = static_cast<char16_t>(*begin);
    }
    if (used == 0) return;
    clear();
    errbuf_blt(buf_, chunk, chunk + used);
  }

 private:
  static constexpr std::size_t kChunk = 128;
  unsigned long buf_;
};

}  // namespace metalayer

// Text goes straight to the writer; numbers are formatted by an ostringstream first.
template <typename Writer>
class ucs2_stream {
 public:
  ucs2_stream() : sstrm_(std::ios_base::out) {
    sstrm_.imbue(std::locale::classic());      // a host's locale may group digits
    sstrm_.exceptions(std::ios_base::badbit);  // lack of memory reaches the caller
  }

  ucs2_stream& operator<<(char const* text) {
    writer_.blt(text, text + std::char_traits<char>::length(text));
    return *this;
  }
  ucs2_stream& operator<<(char16_t unit) {
    writer_.clear();
    metalayer::errbuf_blt(writer_.buf(), &unit, &unit + 1);
    return *this;
  }
  ucs2_stream& operator<<(char16_t const* text) {
    writer_.clear();
    metalayer::errbuf_blt_sz(writer_.buf(), text);
    return *this;
  }
  ucs2_stream& operator<<(std::u16string const& text) {
    writer_.blt(text.begin(), text.end());
    return *this;
  }
  template <typename Number>
  requires std::is_arithmetic_v<Number> ucs2_stream& operator<<(Number number) {
    sstrm_ << number;
    FlushSstrm();
    return *this;
  }
  // Moves what the ostringstream holds to the writer.
  void FlushSstrm() {
    std::string const text = sstrm_.str();
    writer_.blt(text.begin(), text.end());
    sstrm_.str(std::string());
    sstrm_.seekp(0);
  }

 private:
  Writer writer_;
  std::ostringstream sstrm_;
};

namespace metalayer::exceptions {

// ---- failure classes: db_exception with the names involved --------------------------------------

struct SAGLEME_API BadArg : db_util::db_exception {
  using db_exception::db_exception;
};
struct SAGLEME_API BadTableArg : BadArg {
  BadTableArg(unsigned int code, std::u16string table_name);
  std::u16string table;
};
struct SAGLEME_API BadNewTableArg : BadArg {
  BadNewTableArg(unsigned int code, std::u16string table_name);
  std::u16string table;
};
struct SAGLEME_API BadBaseTableArg : BadArg {
  BadBaseTableArg(unsigned int code, std::u16string table_name);
  std::u16string table;
};
struct SAGLEME_API BadColumnArg : BadArg {
  BadColumnArg(unsigned int code, std::u16string table_name, std::u16string column_name);
  std::u16string table;
  std::u16string column;
};
struct SAGLEME_API BadNewColumnArg : BadArg {
  BadNewColumnArg(unsigned int code, std::u16string table_name, std::u16string column_name);
  std::u16string table;
  std::u16string column;
};
struct SAGLEME_API BadIndexArg : BadArg {
  BadIndexArg(unsigned int code, std::u16string index_name);
  std::u16string index;
};
struct SAGLEME_API AmbiguousIncompleteReverseUid : BadArg {
  AmbiguousIncompleteReverseUid(unsigned int code, std::u16string uid, std::u16string first,
                                std::u16string second, bool more);
  std::u16string uid;
  std::u16string first;
  std::u16string second;
  bool more;
};

struct NewColumnNameConflictsList {
  int kind = 0;                     // 1: in an ancestor, 2: in the table itself, 3: in descendants
  std::vector<LS_OBJ_REF> columns;  // the RawColumn rows in conflict
  bool exact = false;               // `columns` holds all conflicts
};

// ---- raisers: each writes its text, then throws -------------------------------------------------

SAGLEME_API void CheckPtrArg(void const* value, char16_t const* argument_name);
SAGLEME_API void CheckNonEmptyStringArg(char16_t const* value, char16_t const* argument_name);

[[noreturn]] SAGLEME_API void ThrowForeignHandle();
[[noreturn]] SAGLEME_API void ThrowTokenNotFound(char16_t const* name);
[[noreturn]] SAGLEME_API void ThrowTokenNotFound(unsigned long id);
[[noreturn]] SAGLEME_API void ThrowInvalidSetspec();
[[noreturn]] SAGLEME_API void ThrowNoColumnDefinitions();
[[noreturn]] SAGLEME_API void ThrowTooManyColumns(std::u16string table);
[[noreturn]] SAGLEME_API void ThrowTableNotFound(unsigned short layout_id);
[[noreturn]] SAGLEME_API void ThrowNonexistentTable(std::u16string table);
[[noreturn]] SAGLEME_API void ThrowTableContainsData(std::u16string table);
[[noreturn]] SAGLEME_API void ThrowTableHasIndex(std::u16string table, std::u16string index,
                                                 bool more);
[[noreturn]] SAGLEME_API void ThrowTableHasChildren(std::u16string table, std::u16string child,
                                                    int count);
[[noreturn]] SAGLEME_API void ThrowTableIsReferenced(std::u16string table, std::u16string column,
                                                     std::u16string referring_table);
[[noreturn]] SAGLEME_API void ThrowNamedTableAlreadyExists(std::u16string table);
[[noreturn]] SAGLEME_API void ThrowNonexistentBaseTable(std::u16string table);
[[noreturn]] SAGLEME_API void ThrowBaseTypeMismatch(std::u16string table);
[[noreturn]] SAGLEME_API void ThrowIncorrectNumberOfColumns(std::u16string table, bool fewer);
[[noreturn]] SAGLEME_API void ThrowColumnDoesNotMatch(std::u16string table, std::u16string column);
[[noreturn]] SAGLEME_API void ThrowColumnNotFound(std::u16string table, std::u16string column);
[[noreturn]] SAGLEME_API void ThrowNonexistentColumn(std::u16string table, std::u16string column);
[[noreturn]] SAGLEME_API void ThrowColumnIsInherited(std::u16string table, std::u16string column);
[[noreturn]] SAGLEME_API void ThrowColumnTypeMustBeNullable(std::u16string table,
                                                            std::u16string column);
[[noreturn]] SAGLEME_API void ThrowIndexExistsOnColumn(std::u16string table, std::u16string column,
                                                       std::u16string index,
                                                       std::u16string conflict_table, int count);
[[noreturn]] SAGLEME_API void ThrowColumnIsMapped(std::u16string table, std::u16string column,
                                                  std::u16string mapper,
                                                  std::u16string conflict_table, int count);
[[noreturn]] SAGLEME_API void ThrowIndexNotFound(std::u16string index);
[[noreturn]] SAGLEME_API void ThrowIndexAlreadyExists(std::u16string index);
[[noreturn]] SAGLEME_API void ThrowIndexNotFoundInType(std::u16string index, std::u16string table);
[[noreturn]] SAGLEME_API void ThrowSqlAmbiguousType(std::u16string name, std::u16string first,
                                                    std::u16string second, bool more);
[[noreturn]] SAGLEME_API void ThrowAmbiguousIncompleteReverseUid(std::u16string uid,
                                                                 std::u16string first,
                                                                 std::u16string second, bool more);
[[noreturn]] SAGLEME_API void ThrowNewColumnNameIsConflicting(std::u16string table,
                                                              std::u16string column,
                                                              NewColumnNameConflictsList&& list);
[[noreturn]] SAGLEME_API void ThrowColumnNameNotUnique(
    std::u16string table, std::u16string column,
    std::vector<std::pair<std::u16string, bool>> existing,
    std::vector<std::pair<std::u16string, std::u16string>> descendants,
    std::vector<std::u16string> added);

}  // namespace metalayer::exceptions

#endif
