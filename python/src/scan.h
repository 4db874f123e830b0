#ifndef SAGLEME_PYTHON_SCAN_H
#define SAGLEME_PYTHON_SCAN_H

// Scans of objects: sources one after the other, filtered, in batches that are fetched without the
// interpreter's lock.

#include "filter.h"

namespace binding {

// A range of an index, with the bytes of its bounds.
struct Source {
  std::uint64_t index = 0;
  bool reverse = false;
  std::vector<std::uint64_t> first;
  std::vector<std::uint64_t> last;
};

struct Scan {
  PyObject_HEAD struct ScanBody* body;
};

// The state of a scan that is not Python's.
struct ScanBody {
  Ref transaction_reference;
  Transaction* transaction = nullptr;
  Binding* root = nullptr;
  bool only = false;      // objects of exactly the class
  bool anything = false;  // the sources hold nothing but objects of the class that is there
  std::vector<Source> sources;
  std::size_t next_source = 0;
  std::uint64_t iterator = 0;
  std::vector<LORV_REFERENCE> page;  // of the iterator, read ahead
  std::uint32_t page_size = 0;
  std::uint32_t page_at = 0;
  std::uint64_t page_stamp = 0;  // the transaction's when it was read
  std::unique_ptr<Condition> condition;
  std::vector<Path> outputs;
  std::vector<Path> prefetch;
  bool tuples = false;
  std::uint64_t left = UINT64_MAX;  // objects that may still be delivered
  std::uint64_t skip = 0;
  std::vector<std::uint8_t> accepted;  // by layout: 0 not known, 1 yes, 2 no
  std::vector<Row> batch;
  Ref made;  // the tuples of the batch
  std::size_t position = 0;
  std::size_t batch_size = 16;
  std::uint64_t stamp = 0;  // the transaction's when the batch was fetched
  bool at_end = false;

  // The next object that satisfies everything; false at the end. Without the interpreter's lock.
  bool Step(Row* out);
  // Frees the iterator, or leaves it to a busy transaction.
  void Stop();

 private:
  bool NextInSources(Row* out);
  void OpenSource(Source const& source);
  // The next row of the iterator; false at its end.
  bool NextInPage(Row* out);
  bool LookAgain(Row* row);
  bool Accepts(Row row);
  bool AcceptsBySetspec(Row row) const;
};

// Fails unless the scan's transaction can be used.
ScanBody& BodyOf(PyObject* scan);

// scan(tx, class, only, sources, condition, outputs, limit, offset, prefetch)
PyObject* NewScan(PyObject*, PyObject* args);

}  // namespace binding

#endif
