#ifndef SAGLEME_PYTHON_TUPLES_H
#define SAGLEME_PYTHON_TUPLES_H

// The tuples of a selection, made of many rows together: a column's values are read in one call.

#include <span>

#include "filter.h"

namespace binding {

// A list of tuples with the values of `outputs`. REQUIRES: the rows are there, and the caller holds
// the interpreter's lock.
PyObject* MakeTuples(Transaction* transaction, std::span<Row const> rows,
                     std::vector<Path> const& outputs);

}  // namespace binding

#endif
