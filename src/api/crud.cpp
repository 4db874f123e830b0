// Names to handles: what a binding asks once, before it works at the speed of the kernel.

#include <sagleme/metalayer/catalogue.hpp>
#include <sagleme/metalayer/crud.hpp>

#include "crud/handle_caches.h"
#include "frame/frame.h"

namespace metalayer::crud {
namespace {

constexpr unsigned int kTableNotFound = SAGLEME_TABLE_NOT_FOUND;
constexpr unsigned int kBadArgument = SAGLEME_BAD_ARGUMENT;

// There is no record behind a delete handle; deleting needs none.
constexpr uint64_t kDeleteHandle = 1;

// A null name finds nothing, and is reported as an empty one.
char16_t const* Printable(char16_t const* name) { return name == nullptr ? u"" : name; }

[[noreturn]] void ThrowTypeNotFound(char16_t const* name) {
  ucs2_stream<ErrBlt> text;
  text << u"Type " << Printable(name) << u" not found.";
  Throw(kTableNotFound);
}

[[noreturn]] void ThrowPropertyNotFound(char16_t const* class_name, char16_t const* property_name) {
  ucs2_stream<ErrBlt> text;
  text << u"Property " << Printable(property_name) << u" isn't found in class "
       << Printable(class_name) << u".";
  Throw(kBadArgument);
}

}  // namespace

LS_OBJ_REF RawViewByCrudName(char16_t const* name) {
  RawView const view(RawView::ByRawViewPK2fullname(name));
  if (view.is_null()) ThrowTypeNotFound(name);
  return view;
}

unsigned long GetTypeId(char16_t const* name) {
  LS_OBJ_REF const view = RawViewByCrudName(name);
  TypeIdsMeta const row(TypeIdsMeta::ByTypeIdsMeta_Type(view));
  if (row.is_null()) FatalError();
  return GetULong(row, TypeIdsMeta::kTypeIdsMeta_Id);
}

std::pair<LS_OBJ_REF, LS_OBJ_REF> GetPropertyViewAndColumn(char16_t const* class_name,
                                                           char16_t const* property_name) {
  LS_OBJ_REF const view = RawViewByCrudName(class_name);
  Member const column(Member::ByMemberPK(view, property_name));
  if (column.is_null()) ThrowPropertyNotFound(class_name, property_name);
  return {column, view};
}

}  // namespace metalayer::crud

using metalayer::MetalayerFunction;
namespace crud = metalayer::crud;

uint32_t lorv_crud_GetTypeId(uint64_t context, char16_t const* name, uint64_t* out_type_id) {
  return MetalayerFunction<false>(context, [&] { *out_type_id = crud::GetTypeId(name); });
}

uint32_t lorv_crud_GetCreateHandle(uint64_t context, char16_t const* name,
                                   CreateInfo** out_handle) {
  return MetalayerFunction<false>(context, [&] {
    *out_handle = crud::create_handle_from_typeid(context, crud::GetTypeId(name));
  });
}

uint32_t lorv_crud_GetCreateHandleOrSystem(uint64_t context, char16_t const* name, bool system,
                                           CreateInfo** out_handle) {
  return MetalayerFunction<false>(context, [&] {
    unsigned long const type_id = crud::GetTypeId(name);
    unsigned long const key =
        system ? type_id | crud::kSystemCreate : type_id & ~crud::kSystemCreate;
    *out_handle = crud::create_handle_from_typeid(context, key);
  });
}

uint32_t lorv_crud_GetDeleteHandle(uint64_t context, char16_t const* name, uint64_t* out_handle) {
  return MetalayerFunction<false>(context, [&] {
    crud::RawViewByCrudName(name);
    *out_handle = crud::kDeleteHandle;
  });
}

uint32_t lorv_crud_GetPropertyHandle(uint64_t context, char16_t const* class_name,
                                     char16_t const* property_name,
                                     PropertyAccessInfo** out_handle) {
  return MetalayerFunction<false>(context, [&] {
    auto const [column, view] = crud::GetPropertyViewAndColumn(class_name, property_name);
    *out_handle = crud::PropertyHandle(view, column);
  });
}

uint32_t lorv_crud_RefreshIssuedHandles(uint64_t context) {
  return MetalayerFunction<false>(context, [] {
    crud::RefreshPropertyHandles();
    crud::RefreshCreateHandles();
  });
}
