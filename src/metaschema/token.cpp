// The name dictionary, and the way from tokens to kernel ids.

#include <sagleme/metalayer/catalogue.hpp>
#include <sagleme/metalayer/metaschema.hpp>
#include <sagleme/metalayer/schema.hpp>

namespace metalayer {

namespace {

// The dictionary is found by number, since no text can be looked up before it is.
constexpr unsigned long kTokenTable = 5;
constexpr unsigned long kNumberIndex = 6;
constexpr unsigned long kTextIndex = 7;
constexpr unsigned int kTokenTableNumber = 1;

}  // namespace

alignas(8) unsigned char TokenMain::ukf_u64_max[16];
alignas(8) unsigned char TokenMain::ukf_u64_min[16];

void TokenMain::Init() {
  // Alike for all databases, whose threads may come here at the same time.
  static bool const keys_written = [] {
    Key(ukf_u64_max).ULong(~0ul);
    Key(ukf_u64_min).ULong(0);
    return true;
  }();
  static_cast<void>(keys_written);
  MetaclassSlots const& known = Token::slots();
  if (*known.table_id == 0) *known.table_id = LoadTableId(kTokenTable);
  if (*known.index_ids[0] == 0) *known.index_ids[0] = LoadIndexId(kNumberIndex);
  if (*known.index_ids[1] == 0) *known.index_ids[1] = LoadIndexId(kTextIndex);
  Token::Init(u"~", metaschema_init_generated_from_json[kTokenTableNumber].type_id);
}

unsigned long TokenMain::get_next_token() {
  db_util::db_iterator highest;
  highest.open(Token::index_id_NameToken(), kReverse, ukf_u64_max, ukf_u64_min);
  if (!highest.next()) FatalError();
  return GetULong(highest.current, Token::kNameToken) + 1;
}

unsigned long assure_token(char16_t const* name) {
  Token const known = Token::ByInvariantName(name);
  if (!known.is_null()) return GetULong(known, Token::kNameToken);
  unsigned long const token = TokenMain::get_next_token();
  Token::Insert(token, name);
  return token;
}

void assure_predefined_token(unsigned long token, char16_t const* name) {
  Token const known = Token::ByInvariantName(name);
  if (!known.is_null()) {
    if (GetULong(known, Token::kNameToken) != token) FatalError();
    return;
  }
  if (!Token::ByNameToken(token).is_null()) FatalError();
  Token::Insert(token, name);
}

// ---- kernel ids ---------------------------------------------------------------------------------

unsigned short LoadTableId(char16_t const* name) { return LoadTableId(assure_token(name)); }

unsigned short LoadTableId(unsigned long token) {
  LORVI_LAYOUT_INFO info{};
  uint32_t count = 1;
  Check(lorvi_context_get_layout_infos_by_token(TlsContextHandle::context(), token, &count, &info));
  if (count == 0) Throw(kNoTable);
  return info.layout_handle;
}

unsigned long LoadIndexId(char16_t const* name) { return LoadIndexId(assure_token(name)); }

unsigned long LoadIndexId(unsigned long token) {
  LORVI_INDEX_INFO info{};
  Check(get_index_info_by_token(token, &info));
  return info.index_id;
}

unsigned int get_index_info_by_token(unsigned long token, LORVI_INDEX_INFO* out) {
  uint32_t count = 1;
  unsigned int const status =
      lorvi_context_get_index_infos_by_token(TlsContextHandle::context(), token, &count, out);
  if (status == LORV_STATUS_NO_INDEX) return status;
  Check(status);
  if (count > 1) FatalError();
  return count == 0 ? LORV_STATUS_NO_INDEX : 0;
}

}  // namespace metalayer
