#ifndef SAGLEME_PYTHON_COLUMNS_H
#define SAGLEME_PYTHON_COLUMNS_H

// Values by column, in the form in which NumPy and Arrow take them, made by a scan that holds no
// interpreter's lock.

#include <string>
#include <vector>

#include "scan.h"

namespace binding {

struct ColumnData {
  std::string name;
  Kind kind = Kind::kLong;
  std::vector<std::uint64_t> words;   // of fixed types, one a row; floats too, as doubles
  std::vector<std::int64_t> offsets;  // of texts and binaries, one more than rows
  std::string bytes;                  // of texts in UTF-8, and binaries
  std::vector<std::uint8_t> valid;    // 0 where the value is null, one a row
  std::int64_t nulls = 0;
  bool well_formed = true;  // no text holds a lone surrogate

  bool variable() const { return TakesKernelMemory(kind); }
  void Add(Datum const& value);
  // A value of fixed size from its bits.
  void AddWord(std::uint64_t bits, bool null);
};

struct Columns {
  PyObject_HEAD std::vector<ColumnData>* data;
  std::int64_t length;
};

// The columns of a scan with outputs: collect(scan, names).
PyObject* Collect(PyObject* module, PyObject* args);
// A capsule "arrow_array_stream" over columns; it keeps them.
PyObject* ExportStream(PyObject* columns, PyObject* requested);
// A capsule "arrow_schema".
PyObject* ExportSchema(PyObject* columns, PyObject*);

extern PyTypeObject g_buffer_type;

// insert_arrow(tx, class, capsule of a stream, progress or None) -> number of objects.
PyObject* InsertArrow(PyObject* module, PyObject* args);
// insert_rows(tx, class, fields, iterable of tuples, lists or dictionaries) -> number.
PyObject* InsertRows(PyObject* module, PyObject* args);

}  // namespace binding

#endif
