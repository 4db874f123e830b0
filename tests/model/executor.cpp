// Operations carried out on a database, through the functions that a host calls.

#include <sagleme/metalayer.hpp>

#include "model/session.h"

namespace sagleme_model {

namespace {

using metalayer::RawView;

RawView ViewOf(Text const& table) { return RawView::ByRawViewPK2fullname(table.c_str()); }

std::vector<LORV_COLUMN_DEFINITION_NAMES> ByNames(std::vector<ColumnDef> const& columns) {
  std::vector<LORV_COLUMN_DEFINITION_NAMES> definitions;
  for (ColumnDef const& column : columns) {
    char16_t const* const target = column.type_name ? column.type_name->c_str() : nullptr;
    definitions.push_back(
        {column.type, target, static_cast<uint8_t>(column.nullable), column.name.c_str()});
  }
  definitions.push_back({0, nullptr, 0, nullptr});
  return definitions;
}

std::vector<LORV_COLUMN_DEFINITION> ByRefs(std::vector<ColumnDef> const& columns) {
  std::vector<LORV_COLUMN_DEFINITION> definitions;
  for (ColumnDef const& column : columns) {
    LS_OBJ_REF const type =
        column.type == kReference
            ? LS_OBJ_REF(ViewOf(*column.type_name))
            : LS_OBJ_REF(metalayer::DbPrimitiveType::ByDbPrimitiveTypePK_postV2_3(column.type));
    definitions.push_back({type, static_cast<uint8_t>(column.nullable), column.name.c_str()});
  }
  definitions.push_back({{0, 0}, 0, nullptr});
  return definitions;
}

char16_t const* TextOrNull(std::optional<Text> const& text) {
  return text ? text->c_str() : nullptr;
}

struct Runner {
  Session& session;
  Model const& model;
  Outcome& outcome;

  uint64_t context() const { return session.context(); }
  uint64_t OidOf(Uid row) const { return session.identities().Of(row); }

  uint32_t operator()(CreateTable const& o) const {
    if (o.form == CreateTable::Form::kByRefs) return CreateByRefs(o);
    auto const columns = ByNames(o.columns);
    auto const create = o.form == CreateTable::Form::kByNames ? lorv_create_table_by_names
                                                              : lorv_create_table_high_check_types;
    uint16_t layout = 0;
    return create(context(), o.name.c_str(), TextOrNull(o.base), columns.data(), &layout);
  }

  uint32_t CreateByRefs(CreateTable const& o) const {
    RawView const base = o.base ? ViewOf(*o.base) : RawView();
    auto const columns = ByRefs(o.columns);
    uint64_t oid = 0;
    uint64_t addr = 0;
    return lorv_create_table(context(), o.name.c_str(), base.oid, base.addr, columns.data(), &oid,
                             &addr);
  }

  uint32_t operator()(AddColumns const& o) const {
    auto const columns = ByNames(o.columns);
    uint64_t layout = 0;
    return lorv_alter_table_add_columns(context(), o.table.c_str(), columns.data(), &layout);
  }
  uint32_t operator()(DropColumn const& o) const {
    uint64_t layout = 0;
    return lorv_alter_table_drop_column_by_names(context(), o.table.c_str(), o.column.c_str(),
                                                 &layout);
  }
  uint32_t operator()(RenameColumn const& o) const {
    return lorv_alter_table_rename_column(context(), o.table.c_str(), o.column.c_str(),
                                          o.new_name.c_str());
  }
  uint32_t operator()(RenameTable const& o) const {
    return lorv_rename_table(context(), o.table.c_str(), o.new_name.c_str());
  }
  uint32_t operator()(DropTable const& o) const {
    return lorv_drop_table_by_name(context(), o.table.c_str(), o.drop_children, o.force);
  }
  uint32_t operator()(DropTables const& o) const {
    std::vector<char16_t const*> names;
    for (Text const& name : o.tables) names.push_back(name.c_str());
    names.push_back(nullptr);
    return lorv_drop_tables_by_names(context(), names.data(), o.drop_children, o.force);
  }
  uint32_t operator()(DropTableCascade const& o) const {
    return lorv_drop_table_cascade(context(), o.table.c_str());
  }

  uint32_t operator()(CreateIndex const& o) const {
    if (o.form != CreateIndex::Form::kByNames) return CreateIndexByOrdinals(o);
    std::vector<LORV_INDEXED_COLUMN> columns;
    for (IndexPart const& part : o.parts) {
      columns.push_back({part.column.c_str(), static_cast<uint8_t>(part.ascending)});
    }
    columns.push_back({nullptr, 0});
    return lorv_create_index_by_names(context(), o.name.c_str(), o.table.c_str(), columns.data(),
                                      o.unique);
  }

  uint32_t CreateIndexByOrdinals(CreateIndex const& o) const {
    std::vector<int16_t> ordinals;
    unsigned mask = 0;
    for (std::size_t i = 0; i < o.parts.size(); ++i) {
      ordinals.push_back(static_cast<int16_t>(o.parts[i].ordinal));
      if (!o.parts[i].ascending) mask |= 1u << i;
    }
    ordinals.push_back(-1);
    auto const sort_mask = static_cast<uint16_t>(mask);
    RawView const view = ViewOf(o.table);
    if (o.form == CreateIndex::Form::kByRef) {
      return lorv_create_index(context(), view.oid, view.addr, o.name.c_str(), sort_mask,
                               ordinals.data(), o.unique);
    }
    auto const layout = static_cast<uint16_t>(GetULong(view, RawView::kLayoutHandle));
    return lorv_create_index_ids(context(), layout, o.name.c_str(), sort_mask, ordinals.data(),
                                 o.unique);
  }

  uint32_t operator()(DropIndex const& o) const {
    switch (o.form) {
      case DropIndex::Form::kByName:
        return lorv_drop_index_by_name(context(), o.name.c_str());
      case DropIndex::Form::kByTableAndName:
        return lorv_drop_index_by_table_and_name(context(), o.table.c_str(), o.name.c_str());
      default:
        metalayer::Index const row = metalayer::Index::ByIndexPK(o.name.c_str());
        return lorv_drop_index(context(), row.oid, row.addr);
    }
  }

  uint32_t operator()(UpdateReferences const&) const {
    return lorv_update_reference_columns_types(context());
  }
  uint32_t operator()(CleanClasses const&) const { return lorv_clrmetadata_clean(context()); }

  uint32_t operator()(MapClass const& o) const {
    Text const uid = u"Lorvenstack.Clr." + o.name;
    Text const reversed = o.name + u".Clr.Lorvenstack";
    metalayer::ClrClass::Insert(o.name.c_str(), db_util::null_obj_ref, true, o.name.c_str(),
                                reversed.c_str(), uid.c_str(), ViewOf(o.table), u"assembly",
                                u"domain", o.name.c_str());
    return 0;
  }

  uint32_t operator()(MapColumn const& o) const {
    alignas(8) unsigned char key[db_util::db_iter_with_keys::kKeySize];
    metalayer::Key(key).Text(o.class_name.c_str());
    LS_OBJ_REF const mapper =
        metalayer::LookupByKey(metalayer::ClrClass::index_id_ClrClassPK(), key);
    metalayer::Member const column =
        metalayer::Member::ByMemberPK(ViewOf(o.table), o.column.c_str());
    metalayer::MappedProperty::Insert(mapper, o.name.c_str(),
                                      column.get_ref(metalayer::Member::kDataType), false, true,
                                      true, column);
    return 0;
  }

  uint32_t operator()(CreateObject const& o) const {
    CreateInfo* handle = nullptr;
    uint32_t const status = lorv_crud_GetCreateHandle(context(), o.table.c_str(), &handle);
    if (status != 0) return status;
    uint64_t addr = 0;
    return lorv_crud_CreateObject(context(), handle, &outcome.made, &addr);
  }

  uint32_t HandleOf(Uid object, Text const& column, PropertyAccessInfo** out) const {
    Table const& table = model.table(model.objects.at(object).table);
    return PropertyHandle(context(), table.name, column, out);
  }

  uint32_t operator()(WriteValue const& o) const {
    PropertyAccessInfo* handle = nullptr;
    uint32_t const status = HandleOf(o.object, o.column, &handle);
    if (status != 0) return status;
    Table const& table = model.table(model.objects.at(o.object).table);
    return Write(handle, OidOf(o.object), table.FindColumn(o.column)->type, o.value);
  }

  uint32_t operator()(WriteDefault const& o) const {
    PropertyAccessInfo* handle = nullptr;
    uint32_t const status = HandleOf(o.object, o.column, &handle);
    return status != 0 ? status : lorv_crud_WriteDefault(context(), handle, OidOf(o.object), 0);
  }

  uint32_t operator()(DeleteObject const& o) const {
    return lorv_crud_DeleteObject_NoHandle(context(), OidOf(o.object), 0);
  }

  uint32_t operator()(AskProperty const& o) const {
    PropertyAccessInfo* handle = nullptr;
    return PropertyHandle(context(), o.table, o.column, &handle);
  }

  uint32_t Write(PropertyAccessInfo const* handle, uint64_t oid, uint8_t type,
                 Value const& value) const {
    uint64_t const c = context();
    switch (type) {
      case kString:
        return lorv_crud_WriteString(c, handle, oid, 0,
                                     IsNull(value) ? nullptr : std::get<Text>(value).c_str());
      case kBinary: {
        auto const& bytes = std::get<std::string>(value);
        return lorv_crud_WriteBinary(c, handle, oid, 0, bytes.data(), bytes.size());
      }
      case kLong:
        return lorv_crud_WriteLong(c, handle, oid, 0, std::get<int64_t>(value));
      case kDecimal:
        return lorv_crud_WriteDecimal(c, handle, oid, 0, std::get<int64_t>(value));
      case kFloat:
        return lorv_crud_WriteFloat(c, handle, oid, 0, std::get<float>(value));
      case kDouble:
        return lorv_crud_WriteDouble(c, handle, oid, 0, std::get<double>(value));
      case kBool:
        return lorv_crud_WriteBool(c, handle, oid, 0, std::get<uint64_t>(value) != 0);
      case kReference:
        return lorv_crud_WriteRef(c, handle, oid, 0, TargetOid(value), 0);
      default:
        return lorv_crud_WriteULong(c, handle, oid, 0, std::get<uint64_t>(value));
    }
  }

  uint64_t TargetOid(Value const& value) const {
    return IsNull(value) ? 0 : OidOf(std::get<Reference>(value).target);
  }
};

}  // namespace

Outcome Session::Run(Model const& before, Operation const& operation) {
  Outcome outcome;
  outcome.status = std::visit(Runner{*this, before, outcome}, operation);
  outcome.text = sagleme_test::LastText(context());
  return outcome;
}

}  // namespace sagleme_model
