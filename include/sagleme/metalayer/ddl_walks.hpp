#ifndef SAGLEME_METALAYER_DDL_WALKS_HPP
#define SAGLEME_METALAYER_DDL_WALKS_HPP

// Part of the binary interface for makers of bindings; see <sagleme/metalayer.hpp>.
//
// The bodies of the walks that ddl.hpp declares.

#include <sagleme/metalayer/ddl.hpp>
#include <sagleme/metalayer/keys.hpp>

namespace metalayer::ddl {

template <typename Callable>
void EnumColumns(RawView const& table, int first, int end, Callable&& callable) {
  if (first == end) return;
  db_util::db_iter_with_keys columns;
  Key(columns.first_key).Ref(table).Long(static_cast<short>(first));
  // The last ordinal of an open end is the highest that a short holds.
  Key(columns.last_key).Ref(table).Long(end == -1 ? 0x7FFF : static_cast<short>(end - 1));
  columns.open(RawColumn::index_id_RawColumnPK(), kForward);
  while (columns.next()) callable(RawColumn(columns.current));
}

template <typename Callable>
void EnumChildren(LS_OBJ_REF parent, Callable&& callable) {
  db_util::db_iter_with_keys children;
  Key(children.first_key).Ref(parent);
  Key(children.last_key).Ref(parent);
  children.open(RawView::index_id_RawViewIdxInherits(), kForward);
  while (children.next()) callable(RawView(children.current));
}

}  // namespace metalayer::ddl

#endif
