#ifndef LSCOREDB_TESTS_STORED_RECORDS_H
#define LSCOREDB_TESTS_STORED_RECORDS_H

// The records of a closed data file, to be changed behind the kernel's back by the store's own
// library. The numbers here repeat those of the file's format.

#include <lmdb.h>

#include <functional>
#include <map>
#include <string>

namespace lscoredb_test {

using Records = std::map<std::string, std::string>;

// What the values of all trees but "rows" and "parts" end with.
std::string WithChecksum(std::string const& key, std::string const& record);
std::string WithoutChecksum(std::string const& record);
// A row image whose checksum is made to fit.
std::string Summed(std::string image);

std::string Big(std::uint64_t value, std::size_t size);
std::string Little(std::uint64_t value, std::size_t size);
std::uint64_t FromLittle(std::string const& bytes);

// One tree, open for changes, which are kept when the object goes.
class StoredTree {
 public:
  StoredTree(std::string const& directory, char const* tree);
  ~StoredTree();
  StoredTree(StoredTree const&) = delete;
  StoredTree& operator=(StoredTree const&) = delete;

  Records All();
  // The test fails when there is no such record.
  std::string Get(std::string const& key);
  void Put(std::string const& key, std::string const& value);
  void Delete(std::string const& key);
  // With the checksum that belongs to it.
  void PutChecked(std::string const& key, std::string const& record) {
    Put(key, WithChecksum(key, record));
  }
  // Changes a sealed record and seals it again.
  void Change(std::string const& key, std::function<void(std::string&)> const& change);
  // The one key that `is` holds for.
  std::string Find(std::function<bool(std::string const&)> const& is);
  std::string FindPrefix(std::string const& prefix);

 private:
  MDB_env* env_ = nullptr;
  MDB_txn* txn_ = nullptr;
  MDB_dbi tree_ = 0;
};

std::string ReadFile(std::string const& path);
void WriteFile(std::string const& path, std::string const& content);

}  // namespace lscoredb_test

#endif
