#ifndef SAGLEME_METALAYER_METASCHEMA_HPP
#define SAGLEME_METALAYER_METASCHEMA_HPP

// Part of the binary interface for makers of bindings; see <sagleme/metalayer.hpp>.
//
// The definition of the 25 system tables, and the descriptors that bootstrap expands it into.
//
// The static records are constant and generated from one description. A MetaschemaInit owns the
// descriptors during one bootstrap call. A context has at most one at a time; pointers between
// descriptors are valid while it lives. Nothing here is locked.
//
// A descriptor has its names and ordinals from the start. Later steps find or create its layout,
// indexes, set specifier and rows in the database. Every step may be repeated. A
// database that differs from the definition ends the process (FatalError); a failing kernel call is
// thrown as db_exception with the kernel's code.

#include <functional>
#include <map>
#include <memory>
#include <sagleme/metalayer/records.hpp>
#include <string>

// From Boost.Coroutine; only callers of CreateAndVerifyMetatables need its headers.
namespace boost::coroutines {
template <typename Arg>
class push_coroutine;
}

namespace metalayer {

class MetaPopul8r;

inline constexpr std::size_t kMaxOwnColumns = 10;
inline constexpr std::size_t kMaxOwnIndexes = 3;
inline constexpr std::size_t kMaxIndexColumns = 10;

struct COLUMN_INFO_STATIC {
  char16_t const* name;       // null ends a list
  unsigned long token;        // 0: given by name on first need
  unsigned char type;         // logical type
  char16_t const* ref_table;  // of a reference: the short name of its target
  bool nullable;              // false in all records; the type decides
};

struct INDEX_INFO_STATIC {
  char16_t const* name;                       // null ends a list
  unsigned long token;                        // 0: given by name on first need
  unsigned int flags;                         // bit 0: unique
  char16_t const* columns[kMaxIndexColumns];  // in key order, inherited ones among them
};

struct TABLE_INFO_STATIC {
  char16_t const* name;   // short
  unsigned long token;    // of the full name; 0: given by name on first need
  unsigned long type_id;  // 0: allocated during creation
  COLUMN_INFO_STATIC columns[kMaxOwnColumns];
  INDEX_INFO_STATIC indexes[kMaxOwnIndexes];
  char16_t const* base_table;  // short name; null at the root
  bool is_public;              // in the public namespace of names, else in the internal one
};

inline constexpr unsigned int nr_meta_table_inits_generated_from_json = 25;
// Root, name dictionary and set specifiers come before it and are set up one by one, all others
// in a loop.
inline constexpr unsigned int kFirstLoopTable = 3;
SAGLEME_API extern TABLE_INFO_STATIC const
    metaschema_init_generated_from_json[nr_meta_table_inits_generated_from_json];
SAGLEME_API unsigned int nr_meta_table_inits();

struct TABLE_INFO;

// A column of the table that declares it.
struct SAGLEME_API COLUMN_INFO : COLUMN_INFO_STATIC {
  COLUMN_INFO();
  // An invalid type ends the process.
  COLUMN_INFO& operator=(COLUMN_INFO_STATIC const& record);

  void assure_token();
  // The kernel's definition of the column. Throws SAGLEME_INVALID_TYPE for an invalid type.
  void define_column(LORVI_COLUMN_DEFINITION* out);
  // Compares token, type and ordinal with the kernel's column of that ordinal.
  void verify(unsigned short ordinal) const;

  short column_index = 0;  // ordinal, the same in every descendant
  TABLE_INFO* table = nullptr;

 private:
  void set_nullable_type();
};

// An index of the table that declares it; it covers that table with all its descendants.
struct SAGLEME_API INDEX_INFO : INDEX_INFO_STATIC {
  INDEX_INFO();
  INDEX_INFO& operator=(INDEX_INFO_STATIC const& record);

  // Resolves the column names through the table and its bases.
  void init_column_infos();
  void assure_token();
  // Finds the kernel's index; false if there is none. An empty `*setspec` receives the index's
  // specifier; another one must equal it. Calls nothing if the id is known.
  bool load_metatable_index(std::u16string* setspec);
  // Finds the kernel's index or creates it over `*setspec`.
  void create_metatable_index(std::u16string* setspec);
  // Compares token, id, flags and columns with the kernel's.
  void verify();
  void verify(LORVI_INDEX_INFO const* info) const;
  // Writes the catalogue rows of the index, unless its first one exists.
  void populate(LS_OBJ_REF table_ref) const;

  unsigned long index_id = 0;  // the kernel's; 0: unknown
  TABLE_INFO* table = nullptr;
  COLUMN_INFO* column_infos[kMaxIndexColumns] = {};
  unsigned short nr_columns = 0;
};

// What follows from a record alone. A name that does not fit ends the process.
struct SAGLEME_API TABLE_INFO_DERIVED_FROM_STATIC : TABLE_INFO_STATIC {
  static constexpr std::size_t kNameSize = 255;  // units, the terminator included

  TABLE_INFO_DERIVED_FROM_STATIC();
  explicit TABLE_INFO_DERIVED_FROM_STATIC(TABLE_INFO_STATIC const& record);

  TABLE_INFO* base = nullptr;
  char16_t unique_identifier_reversed[kNameSize];
  char16_t unique_identifier[kNameSize];
  char16_t full_name[kNameSize];
  char16_t full_name_reversed[kNameSize];
  unsigned short nr_columns = 0;  // own
  unsigned short nr_indexes = 0;  // own
  unsigned short total_nr_columns = 0;

 private:
  void set_fullnames();
  void set_base_table();
  void calc_total_nr_columns();
};

struct SAGLEME_API TABLE_INFO : TABLE_INFO_DERIVED_FROM_STATIC {
  TABLE_INFO() = default;
  // REQUIRES: the base table's record was assigned before.
  TABLE_INFO& operator=(TABLE_INFO_STATIC const& record);

  // By exact short name; null for none.
  static TABLE_INFO* find_table(char16_t const* name);
  // Searches the own columns, then the bases'; null for none.
  COLUMN_INFO* find_column(char16_t const* name) const;
  // REQUIRES: ordinal < total_nr_columns.
  COLUMN_INFO* find_column(unsigned short ordinal) const;
  // Own indexes only; null for none.
  INDEX_INFO* find_index_by_token(unsigned long token);
  // The first own index whose name is unequal to `name`.
  INDEX_INFO* find_index(char16_t const* name) const;
  void assure_token();

  // The number of the kernel layout with the table's token; 0 for none.
  unsigned short get_layout();
  // Writes the own columns and an entry of type 0: up to kMaxOwnColumns + 1 entries.
  void define_columns(LORVI_COLUMN_DEFINITION* out);
  // Finds the kernel layout or creates it on the base's, and sets the tokens of the own columns.
  void create_metatable();
  // Compares token, layout, base and columns with the kernel's; of the root only token and layout.
  void verify();
  void verify(LORVI_LAYOUT_INFO* info) const;
  void verify_base_table(unsigned short kernel_base) const;
  // For all own indexes, in order.
  void create_metatable_indexes();
  void load_metatable_indexes();
  void verify_metatable_indexes();

  // Finds or writes the table's RawView row and makes it the owner of the set specifier's.
  // REQUIRES: layout and set specifier known, the base's row known.
  void populate_raw_view();
  // Writes the rows of the inherited and of the own columns, unless the first of each exists.
  void populate_raw_columns(MetaPopul8r& populator);
  void populate_indices();
  // Columns first, since the rows of an index refer to them.
  void populate_metadata(MetaPopul8r& populator);

  std::unique_ptr<COLUMN_INFO[]> columns;  // kMaxOwnColumns
  std::unique_ptr<INDEX_INFO[]> indexes;   // kMaxOwnIndexes
  LS_OBJ_REF raw_view = db_util::null_obj_ref;
  unsigned short layout = 0;  // 0: unknown
  std::u16string setspec;     // empty at the root, and while unknown

 private:
  void copy_columns();
  void copy_indexes();
};

class DatabaseState;
struct DescriptorSet;

// The descriptors of all tables, and the steps of the bootstrap. Serves the context in which it is
// created; the static functions use the thread's context.
class SAGLEME_API MetaschemaInit {
 public:
  MetaschemaInit();
  ~MetaschemaInit();
  MetaschemaInit(MetaschemaInit const&) = delete;
  MetaschemaInit& operator=(MetaschemaInit const&) = delete;

  // Does nothing if the names are known; ends the process without descriptors.
  static void FillMetaTableInits();
  // The descriptors in table order; null if there is no MetaschemaInit.
  static TABLE_INFO* inits();
  static TABLE_INFO* table_by_name(char16_t const* name);
  static TABLE_INFO* find_table(char16_t const* name) { return table_by_name(name); }
  // Table by table: the tokens of the table, with its full name, of its columns and its indexes. A
  // number that two records share comes twice.
  static void EnumPredefinedTokens(
      std::function<void(unsigned long token, char16_t const* text)> const& callback);

  // Brings a new, older, current or partly created database to the definition. Yields 0 to `sink`
  // after every step; the host may commit there. Throws
  // SAGLEME_VERSION_MISMATCH for a newer database, before anything but tokens is written.
  void CreateAndVerifyMetatables(boost::coroutines::push_coroutine<unsigned int>& sink);

 private:
  friend struct DescriptorSet;
  using TableByName = std::map<std::u16string, TABLE_INFO*>;

  std::shared_ptr<DatabaseState> const database_;
  unsigned long const context_;

  // Of the first database opened.
  static std::unique_ptr<TABLE_INFO[]> g_inits_;
  static std::unique_ptr<TableByName> g_table_by_name_;
};

// Finds or creates the set specifier of a system table and its row.
SAGLEME_API void populate_setspec(TABLE_INFO& table);

}  // namespace metalayer

#endif
