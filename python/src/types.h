#ifndef SAGLEME_PYTHON_TYPES_H
#define SAGLEME_PYTHON_TYPES_H

// The objects of the extension and how they hold on to one another.
//
//   Object -> Transaction -> Context -> Database         strong references, no cycles
//              |-> View -> Binding -> classes, fields
//
// A transaction knows its live objects by identity without owning them; an object takes itself out
// when it goes. All of it is guarded by the interpreter's lock. Where the lock is released, around
// begin, commit, copies and batches of scans, the transaction is marked busy, and any other thread
// that uses it is refused.

#include <optional>
#include <unordered_map>
#include <vector>

#include "identity_map.h"
#include "python_api.h"

namespace binding {

// What a column holds on Python's side: the database's types, and those stored in one of them.
enum class Kind : std::uint8_t {
  kString = static_cast<std::uint8_t>(sagleme::Type::kString),
  kBinary = static_cast<std::uint8_t>(sagleme::Type::kBinary),
  kLong = static_cast<std::uint8_t>(sagleme::Type::kLong),
  kULong = static_cast<std::uint8_t>(sagleme::Type::kULong),
  kDecimal = static_cast<std::uint8_t>(sagleme::Type::kDecimal),
  kFloat = static_cast<std::uint8_t>(sagleme::Type::kFloat),
  kDouble = static_cast<std::uint8_t>(sagleme::Type::kDouble),
  kReference = static_cast<std::uint8_t>(sagleme::Type::kReference),
  kKey = static_cast<std::uint8_t>(sagleme::Type::kKey),
  kBool = static_cast<std::uint8_t>(sagleme::Type::kBool),
  kDatetime = 11,  // a long: microseconds since 1970, UTC
};

// A column of a class; the descriptor that reads and writes it. `slot` counts the columns of the
// class, inherited ones first, so that it is the same in all descendants.
struct Field {
  PyObject_HEAD PyObject* name;
  PyObject* owner;  // the name of the class, for messages
  Py_ssize_t slot;
  Kind kind;
  bool nullable;
};

struct BoundColumn {
  Field* field = nullptr;          // strong
  PyTypeObject* target = nullptr;  // of a reference; strong
  PyObject* fallback = nullptr;    // what new objects get; strong, null for none
  std::uint16_t ordinal = 0;
  Kind kind = Kind::kLong;
};

// A class in one database under one state of the schema.
struct Binding {
  PyTypeObject* type = nullptr;  // strong
  std::u16string setspec;
  std::uint16_t layout = 0;
  std::string misfit;  // why objects of the class cannot be used; empty when they can
  std::vector<BoundColumn> columns;
};

struct View {
  PyObject_HEAD std::vector<std::unique_ptr<Binding>>* bindings;
  std::vector<Binding*>* by_layout;
  std::unordered_map<PyTypeObject*, Binding*>* by_type;
  std::unordered_map<std::u16string, Binding*>* by_setspec;
};

struct Context;

struct Database {
  PyObject_HEAD sagleme::Database* handle;  // null once closed
  std::vector<Context*>* contexts;
  std::size_t working;  // calls that are under way without a transaction of ours
  bool forked;
};

// Keeps a database from being closed while it lives, with the interpreter's lock given up.
class Working {
 public:
  explicit Working(Database* database) : database_(database) { ++database->working; }
  ~Working() { --database_->working; }
  Working(Working const&) = delete;
  Working& operator=(Working const&) = delete;

 private:
  Database* database_;
};

struct Transaction;

struct Context {
  PyObject_HEAD Database* database;  // strong
  sagleme::Context* handle;          // null once closed
  Transaction* current;              // borrowed
};

enum class State : std::uint8_t { kOpen, kBusy, kEnded, kForked };

struct Transaction {
  PyObject_HEAD State state;
  bool held;  // open, but in the middle of a call, which it must outlive
  bool writes;
  std::uint64_t context_id;
  std::uint64_t stamp;  // moves with every write and rollback: what was read before may be stale
  View* view;           // strong; null until bound
  std::uint64_t generation;
  std::uint64_t savepoints;  // taken so far
  Context* context;          // strong
  sagleme::Transaction* kernel;
  IdentityMap<struct Object>* objects;
  IdentityMap<struct Object>* gone;     // those that Python holds still
  std::vector<std::uint64_t>* orphans;  // iterators to free when the transaction is not busy
  PyObject* weak_references;
};

// An object keeps the values that were read of it, references aside, until something is written: a
// snapshot does not change, and making a Python value costs more than all the rest of a read.
struct Object {
  PyObject_VAR_HEAD Transaction* transaction;  // strong
  Binding* binding;                            // the transaction's view keeps it
  std::uint64_t oid;
  std::uint64_t addr;
  std::uint64_t stamp;  // of the values
  std::uint64_t found;  // savepoints taken when Python got it, or got it back
  std::uint64_t ended;  // savepoints taken when it went; it may come back
  bool gone;            // deleted, of another table now, or its making was undone
  PyObject* weak_references;
  PyObject* values[1];  // by slot, as many as the binding has columns; null: not read
};

extern PyTypeObject g_database_type;
extern PyTypeObject g_context_type;
extern PyTypeObject g_transaction_type;
extern PyTypeObject g_view_type;
extern PyTypeObject g_object_type;
extern PyTypeObject g_field_type;
extern PyTypeObject g_scan_type;
extern PyTypeObject g_columns_type;

template <typename T>
T* As(PyObject* object) {
  return reinterpret_cast<T*>(object);
}
template <typename T>
PyObject* Plain(T* object) {
  return reinterpret_cast<PyObject*>(object);
}
inline bool IsObject(PyObject* object) { return PyObject_TypeCheck(object, &g_object_type) != 0; }
inline bool IsField(PyObject* object) { return PyObject_TypeCheck(object, &g_field_type) != 0; }

// The name of a class as messages show it.
inline char const* NameOf(PyTypeObject* type) { return type->tp_name; }

// The handle of a database. Fails for anything else, and for one that is closed or of the parent.
sagleme::Database& HandleOf(PyObject* database);
// Fails unless the transaction can be used by this thread now.
void NeedOpen(Transaction* transaction);
// The same, and that it has a view; returns it.
View* NeedView(Transaction* transaction);
// Fails for an object that is gone or whose transaction is.
void NeedLive(Object* object);
// The binding of a class. Fails when the database has no table for it, or one that does not fit.
Binding* BindingOf(Transaction* transaction, PyObject* type);
// A column by the name of its attribute.
BoundColumn const& ColumnNamed(Binding const& binding, PyObject* name);
// The one Python object for an object of the database.
PyObject* ObjectFor(Transaction* transaction, std::uint64_t oid, std::uint64_t addr);
// The same, by the identity alone; None when there is none.
PyObject* ObjectById(Transaction* transaction, std::uint64_t oid);
// Registers a Python object for a row that was just made.
PyObject* NewObject(Transaction* transaction, Binding* binding, std::uint64_t oid);
// Ends a Python object, whose row is gone or is of another table now.
void EndObject(Object* object);
// Makes one that was ended usable again. REQUIRES: its row is one of its table.
void BringBack(Object* object);
// Ends every Python object whose row is gone, or was made one of another table, and brings back
// those whose row is one of their table again. With a savepoint, which was rolled back to, looks at
// those that Python got, or that went, since.
void SettleObjects(Transaction* transaction, std::uint64_t savepoint = 0);
// Inserts a row that belongs to no set yet, with the defaults that the database has for it. Its
// columns are written before it enters the indexes: an entry would move with every one of them.
std::uint64_t InsertRow(Transaction* transaction, Binding const& binding);
struct Cell;
// Deletes an object as the rules of the references to it say: others may go with it.
void DeleteRow(Transaction* transaction, std::uint64_t oid, std::uint64_t addr);
// Writes a reference, null for 0, as the rule of its column says. False, and nothing is written, if
// the database has no rules.
bool PutByRules(Transaction* transaction, Cell const& at, sagleme::ObjectId target);
// Makes a row an object of its table.
void EnterIndexes(Transaction* transaction, Binding const& binding, std::uint64_t oid);

// Runs work without the interpreter's lock, with the transaction marked busy.
template <typename Work>
auto Away(Transaction* transaction, Work&& work) {
  transaction->state = State::kBusy;
  struct Back {
    Transaction* transaction;
    ~Back() {
      if (transaction->state == State::kBusy) transaction->state = State::kOpen;
    }
  } const back{transaction};
  Unlocked const unlocked;
  return work();
}

// One column of one row.
struct Cell {
  std::uint64_t context;
  std::uint64_t oid;
  std::uint64_t addr;
  std::uint32_t ordinal;
};

// Reads a column as a Python value. `transaction` gives references their objects. Texts and
// binaries take kernel memory: the caller stands in a read scope.
PyObject* ReadValue(Transaction* transaction, Cell const& at, Kind kind);
// Writes a Python value into a column; `field` names it in messages.
void WriteValue(Transaction* transaction, Cell const& at, BoundColumn const& column,
                PyObject* value);
// A value by itself, in the form in which it is compared. Usable without the interpreter's lock.
struct Datum {
  enum class Tag : std::uint8_t { kNull, kSigned, kUnsigned, kReal, kText, kBytes };
  Tag tag = Tag::kNull;
  std::int64_t whole = 0;  // the bits of an unsigned number too
  double real = 0;
  std::u16string_view text;  // kernel memory, or a constant's own
  std::string_view bytes;
};

// A Datum that owns its text: a constant of a filter, a bound of a key.
struct Constant {
  Datum datum;
  std::u16string text;
  std::string bytes;

  Datum Get() const {
    Datum got = datum;
    got.text = text;
    got.bytes = bytes;
    return got;
  }
};

// What a Python value is in a column of that kind. Fails as a write to it would.
Constant ToConstant(Transaction* transaction, BoundColumn const& column, PyObject* value);
// Reads a column; null where there is none. The caller stands in a read scope.
Datum ReadDatum(Cell const& at, Kind kind);
// The Python value of a datum of a column of that kind. A reference becomes its identity.
PyObject* FromDatum(Datum const& datum, Kind kind);
// The Python value of a text or a binary as lscoredb_read_values gives it.
PyObject* FromBytes(std::string_view bytes, Kind kind);
// To be called when the values of such a call, of `size` bytes, are not needed any more: the kernel
// would keep the memory until the transaction ends.
void FreeBytes(std::uint64_t context, std::uint64_t size);
// Below, equal, above: -1, 0, 1. REQUIRES: of one tag, and not null.
int CompareData(Datum const& a, Datum const& b);

inline bool TakesKernelMemory(Kind kind) { return kind == Kind::kString || kind == Kind::kBinary; }

inline Cell CellOf(Object const* object, std::uint32_t ordinal) {
  return {object->transaction->context_id, object->oid, object->addr, ordinal};
}

}  // namespace binding

#endif
