// What the annotations of a database ask of writes: defaults, abstract tables, rules of references.

#include <Python.h>

#include <sagleme/annotations.hpp>
#include <vector>

#include "types.h"

namespace binding {
namespace {

// A row that is being made has no set yet, only a layout.
sagleme::TablePtr TableAt(Transaction* transaction, Cell const& at) {
  auto const& by_layout = *transaction->view->by_layout;
  auto const layout = static_cast<std::size_t>(at.addr & 0xFFFF);
  Binding const* const binding = layout < by_layout.size() ? by_layout[layout] : nullptr;
  if (binding != nullptr) return transaction->kernel->BySetspec(binding->setspec);
  return transaction->kernel->TableOf({at.oid, at.addr});
}

bool IsGone(Transaction const* transaction, std::uint64_t oid) {
  std::uint64_t addr = 0;
  auto const status = lorv_context_lookup(transaction->context_id, oid, &addr);
  return status == LORV_STATUS_NO_OBJECT || status == LORV_STATUS_UNREACHABLE;
}

bool IsOfAnotherTable(Transaction const* transaction, Object const* object) {
  LORV_STRING* setspec = nullptr;
  auto const status =
      lorv_context_get_setspec(transaction->context_id, object->oid, object->addr, &setspec);
  if (status == LORV_STATUS_NULL) return false;
  sagleme::detail::CheckKernel(status);
  return object->binding->setspec != std::u16string_view(setspec->units, setspec->length);
}

}  // namespace

void EndObject(Object* object) {
  if (object->gone) return;
  Transaction* const transaction = object->transaction;
  transaction->objects->Remove(object);
  transaction->gone->Add(object);
  object->ended = transaction->savepoints;
  object->gone = true;
}

void BringBack(Object* object) {
  Transaction* const transaction = object->transaction;
  transaction->gone->Remove(object);
  transaction->objects->Add(object);
  object->found = transaction->savepoints;
  object->gone = false;
}

void SettleObjects(Transaction* transaction, std::uint64_t savepoint) {
  sagleme::ReadScope const scope(transaction->context_id);
  auto const is_there = [transaction](Object const* object) {
    return !IsGone(transaction, object->oid) && !IsOfAnotherTable(transaction, object);
  };
  std::vector<Object*> ended;
  transaction->objects->ForEach([&](Object* object) {
    if (object->found >= savepoint && !is_there(object)) ended.push_back(object);
  });
  std::vector<Object*> returned;
  transaction->gone->ForEach([&](Object* object) {
    if (object->ended >= savepoint && is_there(object)) returned.push_back(object);
  });
  for (Object* const object : ended) EndObject(object);
  for (Object* const object : returned) BringBack(object);
}

std::uint64_t InsertRow(Transaction* transaction, Binding const& binding) {
  std::uint64_t oid = 0;
  std::uint64_t const context = transaction->context_id;
  sagleme::detail::Rules const* const rules = transaction->kernel->rules();
  sagleme::TablePtr const table =
      rules == nullptr ? nullptr : transaction->kernel->BySetspec(binding.setspec);
  if (table != nullptr) sagleme::detail::RequireConcrete(*rules, *table);
  sagleme::detail::CheckKernel(lorv_context_insert(context, binding.layout, &oid));
  if (table != nullptr) {
    sagleme::Object const made(*transaction->kernel, LS_OBJ_REF{oid, binding.layout});
    sagleme::detail::PutDefaults(*rules, made, *table);
  }
  return oid;
}

bool PutByRules(Transaction* transaction, Cell const& at, sagleme::ObjectId target) {
  sagleme::detail::Rules const* const rules = transaction->kernel->rules();
  sagleme::TablePtr const table = rules == nullptr ? nullptr : TableAt(transaction, at);
  if (table == nullptr) return false;
  sagleme::ObjectId old;
  auto const status = lorvi_context_get_refid(at.context, at.oid, at.addr, at.ordinal, &old.value);
  if (status != LORV_STATUS_NULL) sagleme::detail::CheckKernel(status);
  sagleme::detail::PutReference(*rules, *transaction->kernel,
                                {at.context, at.oid, at.addr, at.ordinal}, table->setspec,
                                table->columns.at(at.ordinal), target);
  // A new row had no reference, so bulk inserts, without the interpreter's lock, end nothing.
  if (old.value != 0 && IsGone(transaction, old.value)) SettleObjects(transaction);
  return true;
}

void DeleteRow(Transaction* transaction, std::uint64_t oid, std::uint64_t addr) {
  sagleme::detail::Rules const* const rules = transaction->kernel->rules();
  if (rules == nullptr) {
    return sagleme::detail::CheckKernel(lorv_context_delete(transaction->context_id, oid, addr));
  }
  sagleme::ObjectId const id{oid};
  std::uint64_t const count = sagleme::DeleteObjects(*transaction->kernel, {&id, 1});
  if (count > 1) SettleObjects(transaction);
}

}  // namespace binding
