#ifndef SAGLEME_METALAYER_SCHEMA_HPP
#define SAGLEME_METALAYER_SCHEMA_HPP

// Part of the binary interface for makers of bindings; see <sagleme/metalayer.hpp>.
//
// What reaches tables by number: tokens, set specifiers, layouts, type ids.
//
// A token is a number for a name, a set specifier a text that places a table in the inheritance
// tree, a layout number the kernel's name of one stored form of a table, a type id the number that
// a table keeps for life.
//
// Everything here works in the thread's context, in the host's transaction, and throws db_exception
// with the kernel's code unless it says otherwise. "Ends the process" is FatalError: the catalogue
// contradicts its own definition. A key that does not fit its buffer throws SAGLEME_NAME_TOO_LONG.
// What start-up and calls learn is kept with the context's database, until its last close.

#include <sagleme/statuses.h>

#include <iterator>
#include <sagleme/metalayer/keys.hpp>
#include <string>

namespace metalayer {

// ---- tokens -------------------------------------------------------------------------------------

struct SAGLEME_API TokenMain {
  // Readies the class Token, by number, since no name can be looked up before. May be repeated.
  // SAGLEME_LAYOUT_NOT_FOUND or SAGLEME_INDEX_NOT_FOUND when the table or one of its indexes is not
  // there.
  static void Init();
  // One above the highest in use. A number comes back only if it was the highest and its row went.
  // REQUIRES: Init. An empty dictionary ends the process.
  static unsigned long get_next_token();

  // The keys of the highest and of the lowest unsigned number.
  alignas(8) static unsigned char ukf_u64_max[16];
  alignas(8) static unsigned char ukf_u64_min[16];
};

// The token of `name`, never 0. A name without one gets the next number and a row. REQUIRES:
// TokenMain::Init.
SAGLEME_API unsigned long assure_token(char16_t const* name);
// Gives `name` exactly this number. Ends the process if the name or the number is taken.
SAGLEME_API void assure_predefined_token(unsigned long token, char16_t const* name);

// ---- kernel ids by name or token ----------------------------------------------------------------
//
// By name the token is assured first, so that a name never seen before gets a row.

// There is no layout with this token.
inline constexpr unsigned int kNoTable = SAGLEME_LAYOUT_NOT_FOUND;

// The number of the layout with this token. Throws kNoTable if there is none.
SAGLEME_API unsigned short LoadTableId(char16_t const* name);
SAGLEME_API unsigned short LoadTableId(unsigned long token);
// The kernel's id of the index with this token. Throws SAGLEME_INDEX_NOT_FOUND if there is none.
SAGLEME_API unsigned long LoadIndexId(char16_t const* name);
SAGLEME_API unsigned long LoadIndexId(unsigned long token);
// Returns 0 and writes `*out`, or returns SAGLEME_INDEX_NOT_FOUND; throws any other kernel failure.
// Two indexes with one token end the process.
SAGLEME_API unsigned int get_index_info_by_token(unsigned long token, LORVI_INDEX_INFO* out);

// ---- set specifiers -----------------------------------------------------------------------------

// The root's is the empty text. A child's is its parent's, the letters of the child's number, and
// "~". So one specifier begins another exactly when the first table is an ancestor of the second,
// and the objects of a table with all its descendants are neighbours in the index by set
// specifier.

struct SAGLEME_API Setspec {
  // Bijective base 23 over "a" to "w"; 0 is the empty text, 23 "w", 24 "aa".
  static std::u16string i2spec(unsigned long n);
  // Reads letters leftwards up to "~" or `last`; `first` is left on what stopped it. No letter at
  // all is 0. A unit outside the alphabet gives some number and no failure.
  static unsigned long spec2i(std::u16string::const_reverse_iterator& first,
                              std::u16string::const_reverse_iterator last);
};

// Creates a child specifier of `parent` and its row. A null `type` makes the row refer to itself,
// which marks a specifier that no table owns yet. Increments the parent's counter, so no number is
// reused. A parent without a row ends the process.
SAGLEME_API std::u16string NextSetspec(std::u16string const& parent, LS_OBJ_REF const& type);
// The parent of a specifier: "a~b~" has "a~", "a~" has the empty text.
SAGLEME_API std::u16string ParentSetspec(std::u16string const& setspec);
// Opens `iterator` over all objects of the table with this specifier and of its descendants, and
// moves to the first; `current` is null if there are none. A null `setspec` asks for the null key.
SAGLEME_API void RangeGlobalSetspecIndex(char16_t const* setspec,
                                         db_util::db_iter_with_keys* iterator);
// Bootstrap: gives the bases of every table whose specifier is known theirs.
// REQUIRES: a MetaschemaInit in force.
SAGLEME_API void RecoverSetspecs();

// ---- layouts and type ids -----------------------------------------------------------------------

struct LayoutEntry {
  unsigned long type_id;  // 0: empty. Written last, read first
  LS_OBJ_REF raw_view;
};

// Cached facts of a database's layouts, by layout number, and of its tables, by type id. Threads
// fill and read the entries without a lock, through atomic words. No entry is ever cleared, not by
// a drop and not by a rollback: a reader recognises a dead row by LORV_STATUS_NO_OBJECT or
// LORV_STATUS_UNREACHABLE, and looks again. The functions use the database of the thread's context.
inline constexpr std::size_t kLayouts = 65536;
SAGLEME_API LayoutEntry& EntryOfLayout(unsigned short layout);
// A number from kLayouts on ends the process.
SAGLEME_API LS_OBJ_REF& RawViewSlot(unsigned long type_id);
// The RawView row of MotherOfAllLayouts, where searches up the tree end.
SAGLEME_API LS_OBJ_REF& MomRawView();
// The same for the first database opened, and when it is closed for the next one that is opened.
SAGLEME_API extern LayoutEntry g_layouts[kLayouts];
SAGLEME_API extern LS_OBJ_REF g_raw_views[kLayouts];
SAGLEME_API extern LS_OBJ_REF g_mom_rv;

inline unsigned short LayoutOf(LS_OBJ_REF const& reference) {
  return static_cast<unsigned short>(reference.addr);
}

// The layout number of MotherOfAllLayouts.
SAGLEME_API unsigned short GetRootLayoutHandle();
// The type id of the table of `object`, also under a superseded layout; fills the layout's entry.
// Returns 0 and leaves the entry empty if the object or the table no longer exists.
SAGLEME_API unsigned long AssureCurrentLayoutId(LS_OBJ_REF object);
// Bootstrap: ensures that the row for this pair exists. A null `raw_view` reserves the number. Ends
// the process if the number or the table belongs to another.
SAGLEME_API void AssureTypeId(unsigned long type_id, LS_OBJ_REF raw_view);
// Gives the table the number above the highest. Type ids are never reused.
SAGLEME_API unsigned long NextTypeId(LS_OBJ_REF raw_view);
// The RawView row of a type id, read from the catalogue and cached; null for a number that is only
// reserved. An unknown number ends the process.
SAGLEME_API LS_OBJ_REF LoadRawViewByTypeId(unsigned long type_id);
// The same from the cache, where it is filled: the row may be dead by now. Flags in the four
// highest bits reach the slot of the number below them, and no row of the catalogue.
SAGLEME_API LS_OBJ_REF raw_view_by_type_id(unsigned long type_id);
// The type id of the table's ancestor directly below MotherOfAllLayouts, which may be itself.
SAGLEME_API unsigned long GetRootTypeId(unsigned long type_id);

// ---- start-up and generation --------------------------------------------------------------------

// The one row of UserSchemaGeneration in the context's database; null before start-up.
SAGLEME_API LS_OBJ_REF& SchemaGeneration();
// That of the first database opened.
SAGLEME_API extern LS_OBJ_REF g_schema_generation;

// Starts up on an existing database: fills the classes, compares the version, finds the generation.
// Once per database; does nothing after a success. Several threads may start up one database at the
// same time. Returns 0. Throws SAGLEME_NOT_PREPARED if the catalogue is missing or incomplete, and
// SAGLEME_VERSION_MISMATCH with a text if it has another version; may then be repeated. Two
// generations end the process.
SAGLEME_API unsigned int InitMetalayer();
SAGLEME_API bool IsMetalayerInitialized();
// Makes the next InitMetalayer run completely. The classes keep their values.
SAGLEME_API void SetMetalayerUninitialized();
// Readies the classes of the tables that are there, without any check.
// REQUIRES: a MetaschemaInit in force, TokenMain::Init.
SAGLEME_API void PrepareGeneratedMetaClassesForReading();
// Throws SAGLEME_VERSION_MISMATCH with its text unless the version is the library's.
SAGLEME_API void ReportSchemaMismatchIf(unsigned long database_version);
// Increments the schema generation, in the transaction.
SAGLEME_API void AdvanceSchemaGeneration();
SAGLEME_API void InitializeGenerationIfDoesntExist();

}  // namespace metalayer

#endif
