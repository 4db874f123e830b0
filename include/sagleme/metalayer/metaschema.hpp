#ifndef SAGLEME_METALAYER_METASCHEMA_HPP
#define SAGLEME_METALAYER_METASCHEMA_HPP

// The definition of the 25 system tables, and the descriptors that bootstrap expands it into.
//
// The static records are constant and generated from one description. A MetaschemaInit owns the
// descriptors for the length of one bootstrap call; only one may exist at a time, on one thread.

#include <functional>
#include <map>
#include <memory>
#include <sagleme/metalayer/records.hpp>
#include <string>

namespace metalayer {

class MetaPopul8r;

inline constexpr std::size_t kMaxOwnColumns = 10;
inline constexpr std::size_t kMaxOwnIndexes = 3;
inline constexpr std::size_t kMaxIndexColumns = 10;

struct COLUMN_INFO_STATIC {
  char16_t const* name;  // null ends a list
  unsigned long token;   // 0: given by name on first need
  unsigned char type;    // logical type
  char16_t const* ref_table;
  bool nullable;
};

struct INDEX_INFO_STATIC {
  char16_t const* name;  // null ends a list
  unsigned long token;   // 0: given by name on first need
  unsigned int flags;    // bit 0: unique
  char16_t const* columns[kMaxIndexColumns];
};

struct TABLE_INFO_STATIC {
  char16_t const* name;
  unsigned long token;    // of the full name; 0: given by name on first need
  unsigned long type_id;  // 0: allocated during creation
  COLUMN_INFO_STATIC columns[kMaxOwnColumns];
  INDEX_INFO_STATIC indexes[kMaxOwnIndexes];
  char16_t const* base_table;
  bool is_public;
};

inline constexpr unsigned int nr_meta_table_inits_generated_from_json = 25;
// Root, name dictionary and set specifiers stand before it: they are set up by hand, all others
// alike.
inline constexpr unsigned int kFirstLoopTable = 3;
SAGLEME_API extern TABLE_INFO_STATIC const
    metaschema_init_generated_from_json[nr_meta_table_inits_generated_from_json];
SAGLEME_API unsigned int nr_meta_table_inits();

struct TABLE_INFO;

struct SAGLEME_API COLUMN_INFO : COLUMN_INFO_STATIC {
  COLUMN_INFO();
  COLUMN_INFO& operator=(COLUMN_INFO_STATIC const& record);

  void assure_token();
  void define_column(LORVI_COLUMN_DEFINITION* out);
  void verify(unsigned short ordinal) const;

  short column_index = 0;
  TABLE_INFO* table = nullptr;

 private:
  void set_nullable_type();
};

struct SAGLEME_API INDEX_INFO : INDEX_INFO_STATIC {
  INDEX_INFO();
  INDEX_INFO& operator=(INDEX_INFO_STATIC const& record);

  void init_column_infos();
  void assure_token();
  bool load_metatable_index(std::u16string* setspec);
  void create_metatable_index(std::u16string* setspec);
  void verify();
  void verify(LORVI_INDEX_INFO const* info) const;
  void populate(LS_OBJ_REF table_ref) const;

  unsigned long index_id = 0;
  TABLE_INFO* table = nullptr;
  COLUMN_INFO* column_infos[kMaxIndexColumns] = {};
  unsigned short nr_columns = 0;
};

struct SAGLEME_API TABLE_INFO_DERIVED_FROM_STATIC : TABLE_INFO_STATIC {
  static constexpr std::size_t kNameSize = 255;

  TABLE_INFO_DERIVED_FROM_STATIC();
  explicit TABLE_INFO_DERIVED_FROM_STATIC(TABLE_INFO_STATIC const& record);

  TABLE_INFO* base = nullptr;
  char16_t unique_identifier_reversed[kNameSize];
  char16_t unique_identifier[kNameSize];
  char16_t full_name[kNameSize];
  char16_t full_name_reversed[kNameSize];
  unsigned short nr_columns = 0;
  unsigned short nr_indexes = 0;
  unsigned short total_nr_columns = 0;

 private:
  void set_fullnames();
  void set_base_table();
  void calc_total_nr_columns();
};

struct SAGLEME_API TABLE_INFO : TABLE_INFO_DERIVED_FROM_STATIC {
  TABLE_INFO() = default;
  TABLE_INFO& operator=(TABLE_INFO_STATIC const& record);

  static TABLE_INFO* find_table(char16_t const* name);
  COLUMN_INFO* find_column(char16_t const* name) const;
  COLUMN_INFO* find_column(unsigned short ordinal) const;
  INDEX_INFO* find_index_by_token(unsigned long token);
  // The first own index whose name is unequal to `name`.
  INDEX_INFO* find_index(char16_t const* name) const;
  void assure_token();

  unsigned short get_layout();
  void define_columns(LORVI_COLUMN_DEFINITION* out);
  void create_metatable();
  void verify();
  void verify(LORVI_LAYOUT_INFO* info) const;
  void verify_base_table(unsigned short kernel_base) const;
  void create_metatable_indexes();
  void load_metatable_indexes();
  void verify_metatable_indexes();

  void populate_raw_view();
  void populate_raw_columns(MetaPopul8r& populator);
  void populate_indices();
  void populate_metadata(MetaPopul8r& populator);

  std::unique_ptr<COLUMN_INFO[]> columns;
  std::unique_ptr<INDEX_INFO[]> indexes;
  LS_OBJ_REF raw_view = db_util::null_obj_ref;
  unsigned short layout = 0;
  std::u16string setspec;

 private:
  void copy_columns();
  void copy_indexes();
};

class SAGLEME_API MetaschemaInit {
 public:
  MetaschemaInit();
  ~MetaschemaInit();
  MetaschemaInit(MetaschemaInit const&) = delete;
  MetaschemaInit& operator=(MetaschemaInit const&) = delete;

  static void FillMetaTableInits();
  static TABLE_INFO* inits() { return g_inits_.get(); }
  static TABLE_INFO* table_by_name(char16_t const* name);
  static TABLE_INFO* find_table(char16_t const* name) { return table_by_name(name); }
  static void EnumPredefinedTokens(
      std::function<void(unsigned long token, char16_t const* text)> const& callback);

  // Brings the database to the definition; `yield` is called behind every step.
  void CreateAndVerifyMetatables(std::function<void()> const& yield);

 private:
  using TableByName = std::map<std::u16string, TABLE_INFO*>;

  static std::unique_ptr<TABLE_INFO[]> g_inits_;
  static std::unique_ptr<TableByName> g_table_by_name_;
};

// One Init function per system table, in table order.
using MetaclassInit = unsigned short (*)(std::u16string const& setspec, unsigned long type_id);
extern MetaclassInit const g_inits[nr_meta_table_inits_generated_from_json];

// Finds the table's layout and indexes in the database and readies its class; false when the table
// is not all there.
bool init_meta_table(TABLE_INFO& table);

// Finds or makes the set specifier of a system table and its row.
SAGLEME_API void populate_setspec(TABLE_INFO& table);

}  // namespace metalayer

#endif
