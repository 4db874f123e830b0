// Objects of tables, and the descriptors that read and write their columns.

#include <Python.h>
#include <lscoredb/bulk.h>
#include <structmember.h>

#include "types.h"

namespace binding {
namespace {

void ForgetValues(Object* object) {
  for (Py_ssize_t i = 0; i < Py_SIZE(object); ++i) Py_CLEAR(object->values[i]);
}

void ObjectDealloc(PyObject* object) {
  auto* const self = As<Object>(object);
  if (self->weak_references != nullptr) PyObject_ClearWeakRefs(object);
  if (self->transaction != nullptr) {
    (self->gone ? self->transaction->gone : self->transaction->objects)->Remove(self);
    ForgetValues(self);
    Py_DECREF(Plain(self->transaction));
  }
  Py_TYPE(object)->tp_free(object);
}

PyObject* ObjectNew(PyTypeObject* type, PyObject*, PyObject*) {
  std::string const name = NameOf(type);
  SetError("WrongType", name + " objects are made in a transaction: tx.new(" + name + ", ...)");
  return nullptr;
}

std::string Described(Object const* object) {
  return std::string(NameOf(object->binding->type)) + " " + std::to_string(object->oid);
}

PyObject* Identity(PyObject* object, void*) {
  return PyLong_FromUnsignedLongLong(As<Object>(object)->oid);
}
PyObject* TransactionOf(PyObject* object, void*) {
  return Py_NewRef(Plain(As<Object>(object)->transaction));
}
PyObject* IsLive(PyObject* object, void*) {
  auto const* const self = As<Object>(object);
  return PyBool_FromLong(!self->gone && self->transaction->state == State::kOpen);
}

bool SameObject(Object const* a, Object const* b) {
  return a->oid == b->oid && a->transaction->context->database == b->transaction->context->database;
}

PyObject* Compare(PyObject* a, PyObject* b, int operation) {
  if (!IsObject(a) || !IsObject(b) || (operation != Py_EQ && operation != Py_NE)) {
    Py_RETURN_NOTIMPLEMENTED;
  }
  bool const same = a == b || SameObject(As<Object>(a), As<Object>(b));
  return PyBool_FromLong(same == (operation == Py_EQ));
}

Py_hash_t Hash(PyObject* object) {
  auto const hash = static_cast<Py_hash_t>(As<Object>(object)->oid);
  return hash == -1 ? -2 : hash;
}

PyObject* RefusePickle(PyObject* object, PyObject*) {
  SetError("PickleError", Described(As<Object>(object)) +
                              " lives in its transaction and cannot be pickled or copied; take "
                              "to_dict(), or its id");
  return nullptr;
}

PyMethodDef g_object_methods[] = {{"__reduce__", RefusePickle, METH_NOARGS, nullptr},
                                  {"__reduce_ex__", RefusePickle, METH_O, nullptr},
                                  {nullptr, nullptr, 0, nullptr}};

PyGetSetDef g_object_members[] = {
    {"id", Identity, nullptr, "The identity, which is never used again.", nullptr},
    {"_transaction", TransactionOf, nullptr, nullptr, nullptr},
    {"_live", IsLive, nullptr, nullptr, nullptr},
    {nullptr, nullptr, nullptr, nullptr, nullptr}};

PyTypeObject MakeObjectType() {
  PyTypeObject type = {PyVarObject_HEAD_INIT(nullptr, 0)};
  type.tp_name = "sagleme._core.Object";
  type.tp_basicsize = offsetof(Object, values);
  type.tp_itemsize = sizeof(PyObject*);
  type.tp_flags = Py_TPFLAGS_DEFAULT | Py_TPFLAGS_BASETYPE;
  type.tp_new = ObjectNew;
  type.tp_dealloc = ObjectDealloc;
  type.tp_richcompare = Compare;
  type.tp_hash = Hash;
  type.tp_methods = g_object_methods;
  type.tp_getset = g_object_members;
  type.tp_weaklistoffset = offsetof(Object, weak_references);
  return type;
}

// ---- fields

BoundColumn const* Bound(Field const* field, Object const* object) {
  std::vector<BoundColumn> const& columns = object->binding->columns;
  auto const slot = static_cast<std::size_t>(field->slot);
  if (slot >= columns.size() || columns[slot].field != field) return nullptr;
  return &columns[slot];
}

// The slow way: says what is wrong.
[[noreturn]] void RaiseUnusable(Field* field, PyObject* object) {
  if (!IsObject(object)) {
    Raise("WrongType", "column " + TextOf(field->name) + " belongs to objects of " +
                           TextOf(field->owner) + ", not to " + ReprOf(object));
  }
  NeedLive(As<Object>(object));
  Raise("SchemaError", Described(As<Object>(object)) + " has no column " + TextOf(field->name));
}

[[gnu::always_inline]] inline BoundColumn const* Usable(Field* field, PyObject* object) {
  if (!IsObject(object)) [[unlikely]]
    return nullptr;
  auto const* const self = As<Object>(object);
  if (self->transaction->state != State::kOpen || self->gone) [[unlikely]]
    return nullptr;
  return Bound(field, self);
}

// The kernel's call for many values gives the bytes of one without a place for them to stay.
PyObject* ReadBytes(Transaction* transaction, Cell const& at, Kind kind) {
  void const* data = nullptr;
  std::uint64_t offsets[2] = {};
  std::uint8_t state = LSCOREDB_IS_GONE;
  sagleme::detail::CheckKernel(lscoredb_read_values(at.context, 1, &at.oid,
                                                    static_cast<std::uint16_t>(at.addr & 0xFFFF),
                                                    at.ordinal, &data, offsets, &state));
  if (state == LSCOREDB_HAS_VALUE) {
    PyObject* const value = FromBytes({static_cast<char const*>(data), offsets[1]}, kind);
    FreeBytes(at.context, offsets[1]);
    return value;
  }
  if (state == LSCOREDB_IS_NULL) Py_RETURN_NONE;
  sagleme::ReadScope const scope(at.context);
  return ReadValue(transaction, at, kind);
}

PyObject* ReadNew(Object* object, BoundColumn const& column) {
  Cell const at = CellOf(object, column.ordinal);
  if (column.kind == Kind::kLong) [[likely]] {
    std::int64_t value = 0;
    if (lorv_context_get_long(at.context, at.oid, at.addr, at.ordinal, &value) == 0) {
      return PyLong_FromLongLong(value);
    }
  }
  return Guard([&] {
    if (TakesKernelMemory(column.kind)) return ReadBytes(object->transaction, at, column.kind);
    return ReadValue(object->transaction, at, column.kind);
  });
}

// A target that is kept would keep others in turn, and find its way back.
bool IsKept(Kind kind) { return kind != Kind::kReference; }

PyObject* FieldGet(PyObject* descriptor, PyObject* object, PyObject*) {
  if (object == nullptr) return Py_NewRef(descriptor);
  auto* const field = As<Field>(descriptor);
  BoundColumn const* const column = Usable(field, object);
  if (column == nullptr) [[unlikely]] {
    return Guard([&]() -> PyObject* { RaiseUnusable(field, object); });
  }
  auto* const self = As<Object>(object);
  PyObject*& kept = self->values[field->slot];
  if (self->stamp != self->transaction->stamp) {
    ForgetValues(self);
    self->stamp = self->transaction->stamp;
  } else if (kept != nullptr) {
    return Py_NewRef(kept);
  }
  PyObject* const value = ReadNew(self, *column);
  if (value != nullptr && IsKept(column->kind)) kept = Py_NewRef(value);
  return value;
}

int FieldSet(PyObject* descriptor, PyObject* object, PyObject* value) {
  return Guarded(-1, [&] {
    auto* const field = As<Field>(descriptor);
    BoundColumn const* const column = Usable(field, object);
    if (column == nullptr) RaiseUnusable(field, object);
    if (value == nullptr) {
      Raise("WrongType", "a column cannot be deleted from an object; set it to None");
    }
    auto* const self = As<Object>(object);
    WriteValue(self->transaction, CellOf(self, column->ordinal), *column, value);
    ++self->transaction->stamp;
    return 0;
  });
}

int FieldInit(PyObject* object, PyObject* args, PyObject*) {
  PyObject* name = nullptr;
  PyObject* owner = nullptr;
  Py_ssize_t slot = 0;
  int kind = 0;
  int nullable = 0;
  if (!PyArg_ParseTuple(args, "UUnip", &name, &owner, &slot, &kind, &nullable)) return -1;
  auto* const self = As<Field>(object);
  Py_XSETREF(self->name, Py_NewRef(name));
  Py_XSETREF(self->owner, Py_NewRef(owner));
  self->slot = slot;
  self->kind = static_cast<Kind>(kind);
  self->nullable = nullable != 0;
  return 0;
}

void FieldDealloc(PyObject* object) {
  auto* const self = As<Field>(object);
  Py_XDECREF(self->name);
  Py_XDECREF(self->owner);
  Py_TYPE(object)->tp_free(object);
}

PyMemberDef g_field_members[] = {
    {"_name", T_OBJECT, offsetof(Field, name), READONLY, "The attribute's name."},
    {"_owner", T_OBJECT, offsetof(Field, owner), READONLY, "The class that declares it."},
    {"_slot", T_PYSSIZET, offsetof(Field, slot), READONLY, nullptr},
    {"_kind", T_UBYTE, offsetof(Field, kind), READONLY, nullptr},
    {"_nullable", T_BOOL, offsetof(Field, nullable), READONLY, nullptr},
    {nullptr, 0, 0, 0, nullptr}};

PyTypeObject MakeFieldType() {
  PyTypeObject type = {PyVarObject_HEAD_INIT(nullptr, 0)};
  type.tp_name = "sagleme._core.Field";
  type.tp_basicsize = sizeof(Field);
  type.tp_flags = Py_TPFLAGS_DEFAULT | Py_TPFLAGS_BASETYPE;
  type.tp_new = PyType_GenericNew;
  type.tp_init = FieldInit;
  type.tp_dealloc = FieldDealloc;
  type.tp_descr_get = FieldGet;
  type.tp_descr_set = FieldSet;
  type.tp_members = g_field_members;
  return type;
}

Object* Allocate(Transaction* transaction, Binding* binding, std::uint64_t oid,
                 std::uint64_t addr) {
  if (!binding->misfit.empty()) Raise("SchemaError", binding->misfit);
  auto const columns = static_cast<Py_ssize_t>(binding->columns.size());
  auto* const made = As<Object>(Need(binding->type->tp_alloc(binding->type, columns)));
  made->transaction = transaction;
  Py_INCREF(Plain(transaction));
  made->binding = binding;
  made->oid = oid;
  made->found = transaction->savepoints;
  // The class's own layout: columns of objects that lie under an older one are found by token.
  made->addr = (addr & ~std::uint64_t{0xFFFF}) | binding->layout;
  transaction->objects->Add(made);
  return made;
}

Binding* BindingBySetspec(Transaction* transaction, std::uint64_t oid, std::uint64_t addr) {
  sagleme::ReadScope const scope(transaction->context_id);
  LORV_STRING* record = nullptr;
  auto const status = lorv_context_get_setspec(transaction->context_id, oid, addr, &record);
  if (status == LORV_STATUS_NULL) return nullptr;
  sagleme::detail::CheckKernel(status);
  auto const& by_setspec = *transaction->view->by_setspec;
  auto const found = by_setspec.find(std::u16string(record->units, record->length));
  return found == by_setspec.end() ? nullptr : found->second;
}

}  // namespace

PyTypeObject g_object_type = MakeObjectType();
PyTypeObject g_field_type = MakeFieldType();

void NeedLive(Object* object) {
  State const state = object->transaction->state;
  if (state == State::kEnded) {
    std::string const name = NameOf(Py_TYPE(Plain(object)));
    Raise("EndedError", Described(object) +
                            " belongs to a transaction that has ended; read it again with tx.get(" +
                            name + ", " + std::to_string(object->oid) +
                            "), or take what you need with to_dict() before the end");
  }
  NeedOpen(object->transaction);
  if (object->gone) {
    Raise("DeletedError", Described(object) +
                              " was deleted or moved to another table, or made behind a savepoint "
                              "that was rolled back; look for it with tx.get, or take to_dict() "
                              "before");
  }
}

PyObject* ObjectFor(Transaction* transaction, std::uint64_t oid, std::uint64_t addr) {
  if (Object* const known = transaction->objects->Find(oid)) return Py_NewRef(Plain(known));
  std::uint16_t const layout = metalayer::LayoutOf({oid, addr});
  std::vector<Binding*> const& by_layout = *transaction->view->by_layout;
  Binding* binding = layout < by_layout.size() ? by_layout[layout] : nullptr;
  if (binding == nullptr) binding = BindingBySetspec(transaction, oid, addr);
  if (binding == nullptr) {
    Raise("SchemaError", "object " + std::to_string(oid) +
                             " belongs to no table of the database; its table was dropped");
  }
  auto const of_binding = [binding](Object const& each) { return each.binding == binding; };
  if (Object* const former = transaction->gone->FindIf(oid, of_binding)) {
    BringBack(former);
    return Py_NewRef(Plain(former));
  }
  return Plain(Allocate(transaction, binding, oid, addr));
}

PyObject* ObjectById(Transaction* transaction, std::uint64_t oid) {
  if (oid == 0) Py_RETURN_NONE;
  std::uint64_t addr = 0;
  auto const status = lorv_context_lookup(transaction->context_id, oid, &addr);
  if (status == LORV_STATUS_NO_OBJECT || status == LORV_STATUS_UNREACHABLE) Py_RETURN_NONE;
  sagleme::detail::CheckKernel(status);
  return ObjectFor(transaction, oid, addr);
}

PyObject* NewObject(Transaction* transaction, Binding* binding, std::uint64_t oid) {
  return Plain(Allocate(transaction, binding, oid, 0));
}

}  // namespace binding
