// Views: the classes of a database under one state of its schema.

#include "types.h"

namespace binding {
namespace {

void AddColumn(Binding& binding, PyObject* entry) {
  PyObject* field = nullptr;
  PyObject* target = nullptr;
  PyObject* fallback = nullptr;
  unsigned short ordinal = 0;
  int kind = 0;
  if (!PyArg_ParseTuple(entry, "O!HiOO", &g_field_type, &field, &ordinal, &kind, &target,
                        &fallback)) {
    throw PythonError{};
  }
  BoundColumn column;
  column.field = As<Field>(Py_NewRef(field));
  column.ordinal = ordinal;
  column.kind = static_cast<Kind>(kind);
  if (PyType_Check(target)) column.target = As<PyTypeObject>(Py_NewRef(target));
  if (fallback != Py_None) column.fallback = Py_NewRef(fallback);
  binding.columns.push_back(column);
}

void Register(View* view, std::unique_ptr<Binding> binding) {
  view->by_type->emplace(binding->type, binding.get());
  if (binding->layout != 0) {
    if (binding->layout >= view->by_layout->size()) view->by_layout->resize(binding->layout + 1u);
    (*view->by_layout)[binding->layout] = binding.get();
    view->by_setspec->emplace(binding->setspec, binding.get());
  }
  view->bindings->push_back(std::move(binding));
}

// (class, layout, set specifier, misfit, [(field, ordinal, kind, target, fallback)])
void AddBinding(View* view, PyObject* entry) {
  PyObject* type = nullptr;
  PyObject* setspec = nullptr;
  PyObject* misfit = nullptr;
  PyObject* columns = nullptr;
  unsigned short layout = 0;
  if (!PyArg_ParseTuple(entry, "O!HUUO!", &PyType_Type, &type, &layout, &setspec, &misfit,
                        &PyList_Type, &columns)) {
    throw PythonError{};
  }
  auto binding = std::make_unique<Binding>();
  Binding& made = *binding;
  made.type = As<PyTypeObject>(Py_NewRef(type));
  made.layout = layout;
  made.setspec = ToUnits(setspec);
  made.misfit = TextOf(misfit);
  Register(view, std::move(binding));  // from here on the view gives it back
  for (Py_ssize_t i = 0; i < PyList_GET_SIZE(columns); ++i) {
    AddColumn(made, PyList_GET_ITEM(columns, i));
  }
}

PyObject* ViewNew(PyTypeObject* type, PyObject* args, PyObject*) {
  PyObject* entries = nullptr;
  if (!PyArg_ParseTuple(args, "O!", &PyList_Type, &entries)) return nullptr;
  return Guard([&] {
    Ref made(Need(type->tp_alloc(type, 0)));
    auto* const self = As<View>(made.get());
    self->bindings = new std::vector<std::unique_ptr<Binding>>;
    self->by_layout = new std::vector<Binding*>;
    self->by_type = new std::unordered_map<PyTypeObject*, Binding*>;
    self->by_setspec = new std::unordered_map<std::u16string, Binding*>;
    for (Py_ssize_t i = 0; i < PyList_GET_SIZE(entries); ++i) {
      AddBinding(self, PyList_GET_ITEM(entries, i));
    }
    return made.release();
  });
}

void ViewDealloc(PyObject* object) {
  auto* const self = As<View>(object);
  if (self->bindings != nullptr) {
    for (auto const& binding : *self->bindings) {
      for (BoundColumn const& column : binding->columns) {
        Py_XDECREF(Plain(column.field));
        Py_XDECREF(Plain(column.target));
        Py_XDECREF(column.fallback);
      }
      Py_XDECREF(Plain(binding->type));
    }
  }
  delete self->bindings;
  delete self->by_layout;
  delete self->by_type;
  delete self->by_setspec;
  Py_TYPE(object)->tp_free(object);
}

PyTypeObject MakeType() {
  PyTypeObject type = {PyVarObject_HEAD_INIT(nullptr, 0)};
  type.tp_name = "sagleme._core.View";
  type.tp_basicsize = sizeof(View);
  type.tp_flags = Py_TPFLAGS_DEFAULT;
  type.tp_new = ViewNew;
  type.tp_dealloc = ViewDealloc;
  return type;
}

}  // namespace

PyTypeObject g_view_type = MakeType();

Binding* BindingOf(Transaction* transaction, PyObject* type) {
  View const* const view = NeedView(transaction);
  if (!PyType_Check(type)) Raise("WrongType", "a class of a table is needed, not " + ReprOf(type));
  auto const found = view->by_type->find(As<PyTypeObject>(type));
  if (found == view->by_type->end()) {
    Raise("SchemaError", std::string(NameOf(As<PyTypeObject>(type))) +
                             " is no class of this database; pass it to sg.open(models=...)");
  }
  if (!found->second->misfit.empty()) Raise("SchemaError", found->second->misfit);
  return found->second;
}

BoundColumn const& ColumnNamed(Binding const& binding, PyObject* name) {
  PyObject* const found = _PyType_Lookup(binding.type, name);
  if (found == nullptr || !IsField(found)) {
    Raise("WrongType", std::string(NameOf(binding.type)) + " has no column " + TextOf(name));
  }
  return binding.columns.at(static_cast<std::size_t>(As<Field>(found)->slot));
}

}  // namespace binding
