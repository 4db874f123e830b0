// Set specifiers, and the rows that carry them.

#include <algorithm>
#include <sagleme/metalayer/catalogue.hpp>
#include <sagleme/metalayer/metaschema.hpp>
#include <sagleme/metalayer/schema.hpp>
#include <string_view>

#include "metaschema/setspec.h"
#include "metaschema/system_row.h"

namespace metalayer {

namespace {

constexpr char16_t kEnd = u'~';
constexpr std::u16string_view kAlphabet = u"abcdefghijklmnopqrstuvw";
constexpr unsigned long kBase = kAlphabet.size();

// A specifier row that no table owns yet: it refers to itself.
void InsertOwnerless(std::u16string const& setspec) {
  LS_OBJ_REF const row = SetSpecifier::Insert(setspec.c_str(), db_util::null_obj_ref, 0);
  PutRef(row, SetSpecifier::kType, row);
}

// Keeps the parent from giving out once more the child number that is in `setspec`.
void ReserveChildNumber(LS_OBJ_REF const& parent, std::u16string const& setspec) {
  if (setspec.back() != kEnd) FatalError();
  auto letter = setspec.crbegin() + 1;
  unsigned long const least = Setspec::spec2i(letter, setspec.crend()) + 1;
  if (GetULong(parent, SetSpecifier::kNumberOfChildren) >= least) return;
  PutULong(parent, SetSpecifier::kNumberOfChildren, least);
}

void RecoverSetspec(TABLE_INFO& table, std::u16string const& spec) {
  if (table.layout == 0) FatalError();
  if (spec.empty()) return;
  if (table.setspec.empty()) table.setspec = spec;
  if (table.setspec != spec) FatalError();
  if (table.base != nullptr) RecoverSetspec(*table.base, ParentSetspec(spec));
}

}  // namespace

LS_OBJ_REF InsertSystemRow(unsigned short table_id, std::u16string const& setspec) {
  unsigned long const context = TlsContextHandle::context();
  LS_OBJ_REF row{0, table_id};
  Check(lorv_context_insert_system(context, table_id, &row.oid));
  Check(lorv_context_put_setspec(context, row.oid, row.addr, setspec.c_str()));
  return row;
}

// ---- the text form ------------------------------------------------------------------------------

std::u16string Setspec::i2spec(unsigned long n) {
  std::u16string letters;
  for (; n != 0; n = (n - 1) / kBase) letters.push_back(kAlphabet[(n - 1) % kBase]);
  std::reverse(letters.begin(), letters.end());
  return letters;
}

unsigned long Setspec::spec2i(std::u16string::const_reverse_iterator& first,
                              std::u16string::const_reverse_iterator last) {
  unsigned long value = 0;
  for (unsigned long weight = 1; first != last && *first != kEnd; ++first, weight *= kBase) {
    value += (static_cast<unsigned long>(*first) - (kAlphabet.front() - 1u)) * weight;
  }
  return value;
}

std::u16string ParentSetspec(std::u16string const& setspec) {
  std::size_t length = setspec.size();
  if (length != 0 && setspec.back() == kEnd) --length;
  while (length != 0 && setspec[length - 1] != kEnd) --length;
  return setspec.substr(0, length);
}

// ---- rows ---------------------------------------------------------------------------------------

std::u16string NextSetspec(std::u16string const& parent, LS_OBJ_REF const& type) {
  SetSpecifier const row = SetSpecifier::ByTypeId_postV2_3(parent.c_str());
  if (row.is_null()) FatalError();
  unsigned long const number = GetULong(row, SetSpecifier::kNumberOfChildren);
  PutULong(row, SetSpecifier::kNumberOfChildren, number + 1);
  std::u16string child = parent + Setspec::i2spec(number) + kEnd;
  if (type.oid == 0) {
    InsertOwnerless(child);
  } else {
    SetSpecifier::Insert(child.c_str(), type, 0);
  }
  return child;
}

void populate_setspec(TABLE_INFO& table) {
  if (table.base != nullptr && table.setspec.empty()) {
    table.setspec = NextSetspec(table.base->setspec, db_util::null_obj_ref);
    return;
  }
  if (!SetSpecifier::ByTypeId_postV2_3(table.setspec.c_str()).is_null()) return;
  // A specifier without a row: the root's, one given by hand before its parent's row could exist,
  // or that of a table cut off in creation.
  if (table.base != nullptr) {
    if (ParentSetspec(table.setspec) != table.base->setspec) FatalError();
    SetSpecifier const parent = SetSpecifier::ByTypeId_postV2_3(table.base->setspec.c_str());
    if (parent.is_null()) FatalError();
    ReserveChildNumber(parent, table.setspec);
  }
  InsertOwnerless(table.setspec);
}

void RecoverSetspecs() {
  TABLE_INFO* const tables = MetaschemaInit::inits();
  for (unsigned int i = kFirstLoopTable; i < nr_meta_table_inits(); ++i) {
    if (tables[i].layout != 0) RecoverSetspec(tables[i], std::u16string(tables[i].setspec));
  }
}

// ---- objects by set -----------------------------------------------------------------------------

void RangeGlobalSetspecIndex(char16_t const* setspec, db_util::db_iter_with_keys* iterator) {
  Key(iterator->first_key).SetspecLowerBound(setspec);
  Key(iterator->last_key).SetspecUpperBound(setspec);
  iterator->open(MotherOfAllLayouts::index_id_MotherOfAllLayouts_SetspecIndex(), kForward);
  iterator->next();
}

bool SetspecBeginsWith(LS_OBJ_REF const& row, std::u16string const& setspec) {
  if (setspec.empty()) return true;
  LORV_STRING* text = nullptr;
  Check(lorv_context_get_setspec(TlsContextHandle::context(), row.oid, row.addr, &text));
  return std::u16string_view(text->units, text->length).starts_with(setspec);
}

}  // namespace metalayer
