#ifndef SAGLEME_METALAYER_SCHEMA_HPP
#define SAGLEME_METALAYER_SCHEMA_HPP

// What reaches tables by number: tokens, set specifiers, layouts, type ids.

#include <iterator>
#include <sagleme/metalayer/keys.hpp>
#include <string>

namespace metalayer {

// ---- tokens -------------------------------------------------------------------------------------

struct SAGLEME_API TokenMain {
  static void Init();
  static unsigned long get_next_token();

  alignas(8) static unsigned char ukf_u64_max[16];
  alignas(8) static unsigned char ukf_u64_min[16];
};

SAGLEME_API unsigned long assure_token(char16_t const* name);
SAGLEME_API void assure_predefined_token(unsigned long token, char16_t const* name);

// ---- kernel ids by name or token ----------------------------------------------------------------

// No layout was made with that token.
inline constexpr unsigned int kNoTable = 4230;

SAGLEME_API unsigned short LoadTableId(char16_t const* name);
SAGLEME_API unsigned short LoadTableId(unsigned long token);
SAGLEME_API unsigned long LoadIndexId(char16_t const* name);
SAGLEME_API unsigned long LoadIndexId(unsigned long token);
// 0, or 4229 for no such index; any other kernel failure is thrown.
SAGLEME_API unsigned int get_index_info_by_token(unsigned long token, LORVI_INDEX_INFO* out);

// ---- set specifiers -----------------------------------------------------------------------------

struct SAGLEME_API Setspec {
  // Bijective base 23 over "a" to "w"; 0 is the empty text.
  static std::u16string i2spec(unsigned long n);
  // Reads letters leftwards up to "~" or `last`; `first` is left on what stopped it.
  static unsigned long spec2i(std::u16string::const_reverse_iterator& first,
                              std::u16string::const_reverse_iterator last);
};

// A new child specifier of `parent`, with its row. A null `type` makes the row refer to itself.
SAGLEME_API std::u16string NextSetspec(std::u16string const& parent, LS_OBJ_REF const& type);
// The parent of a specifier: "a~b~" has "a~", "a~" has the empty text.
SAGLEME_API std::u16string ParentSetspec(std::u16string const& setspec);
// Opens `iterator` over all objects of the table with that specifier and of its subtree, and moves
// to the first.
SAGLEME_API void RangeGlobalSetspecIndex(char16_t const* setspec,
                                         db_util::db_iter_with_keys* iterator);
SAGLEME_API void RecoverSetspecs();

// True when the row's set specifier begins with `setspec`, or `setspec` is empty.
bool SetspecBeginsWith(LS_OBJ_REF const& row, std::u16string const& setspec);

// ---- layouts and type ids -----------------------------------------------------------------------

struct LayoutEntry {
  unsigned long type_id;  // 0: empty. Written last, read first
  LS_OBJ_REF raw_view;
};

inline constexpr std::size_t kLayouts = 65536;
SAGLEME_API extern LayoutEntry g_layouts[kLayouts];
SAGLEME_API extern LS_OBJ_REF g_raw_views[kLayouts];
// The RawView row of MotherOfAllLayouts.
SAGLEME_API extern LS_OBJ_REF g_mom_rv;

inline unsigned short LayoutOf(LS_OBJ_REF const& reference) {
  return static_cast<unsigned short>(reference.addr);
}

SAGLEME_API unsigned short GetRootLayoutHandle();
SAGLEME_API unsigned long AssureCurrentLayoutId(LS_OBJ_REF object);
SAGLEME_API void AssureTypeId(unsigned long type_id, LS_OBJ_REF raw_view);
SAGLEME_API unsigned long NextTypeId(LS_OBJ_REF raw_view);
SAGLEME_API LS_OBJ_REF LoadRawViewByTypeId(unsigned long type_id);
SAGLEME_API LS_OBJ_REF raw_view_by_type_id(unsigned long type_id);
SAGLEME_API unsigned long GetRootTypeId(unsigned long type_id);

// ---- start-up and generation --------------------------------------------------------------------

// The one row of UserSchemaGeneration.
SAGLEME_API extern LS_OBJ_REF g_schema_generation;

SAGLEME_API unsigned int InitMetalayer();
SAGLEME_API bool IsMetalayerInitialized();
SAGLEME_API void SetMetalayerUninitialized();
SAGLEME_API void PrepareGeneratedMetaClassesForReading();
SAGLEME_API void ReportSchemaMismatchIf(unsigned long database_version);
SAGLEME_API void AdvanceSchemaGeneration();
SAGLEME_API void InitializeGenerationIfDoesntExist();

}  // namespace metalayer

#endif
