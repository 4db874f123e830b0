#include "stored_records.h"

#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

#include "crc32c.h"

namespace lscoredb_test {

std::string Big(std::uint64_t value, std::size_t size) {
  std::string bytes(size, '\0');
  for (std::size_t i = size; i > 0; value >>= 8) bytes[--i] = static_cast<char>(value & 0xFF);
  return bytes;
}

std::string Little(std::uint64_t value, std::size_t size) {
  std::string const big = Big(value, size);
  return {big.rbegin(), big.rend()};
}

std::uint64_t FromLittle(std::string const& bytes) {
  std::uint64_t value = 0;
  for (std::size_t i = bytes.size(); i > 0; --i) {
    value = value << 8 | static_cast<unsigned char>(bytes[i - 1]);
  }
  return value;
}

std::string WithChecksum(std::string const& key, std::string const& record) {
  return record + Little(lscore::Crc32c(key + record), 4);
}

std::string WithoutChecksum(std::string const& record) {
  return record.substr(0, record.size() - 4);
}

std::string Summed(std::string image) {
  return Little(lscore::Crc32c(std::string_view(image).substr(4)), 4) + image.substr(4);
}

StoredTree::StoredTree(std::string const& directory, char const* tree) {
  EXPECT_EQ(mdb_env_create(&env_), 0);
  EXPECT_EQ(mdb_env_set_maxdbs(env_, 8), 0);
  EXPECT_EQ(mdb_env_set_mapsize(env_, std::size_t{1} << 30), 0);
  EXPECT_EQ(mdb_env_open(env_, directory.c_str(), MDB_NOSYNC, 0600), 0);
  EXPECT_EQ(mdb_txn_begin(env_, nullptr, 0, &txn_), 0);
  EXPECT_EQ(mdb_dbi_open(txn_, tree, 0, &tree_), 0);
}

StoredTree::~StoredTree() {
  EXPECT_EQ(mdb_txn_commit(txn_), 0);
  mdb_env_close(env_);
}

Records StoredTree::All() {
  Records records;
  MDB_cursor* cursor = nullptr;
  MDB_val key;
  MDB_val value;
  EXPECT_EQ(mdb_cursor_open(txn_, tree_, &cursor), 0);
  while (mdb_cursor_get(cursor, &key, &value, MDB_NEXT) == 0) {
    records.emplace(std::string(static_cast<char const*>(key.mv_data), key.mv_size),
                    std::string(static_cast<char const*>(value.mv_data), value.mv_size));
  }
  mdb_cursor_close(cursor);
  return records;
}

std::string StoredTree::Get(std::string const& key) {
  Records const records = All();
  auto const at = records.find(key);
  EXPECT_NE(at, records.end());
  return at == records.end() ? std::string() : at->second;
}

void StoredTree::Put(std::string const& key, std::string const& value) {
  std::string own_key = key;
  std::string own_value = value;
  MDB_val k{own_key.size(), own_key.data()};
  MDB_val v{own_value.size(), own_value.data()};
  EXPECT_EQ(mdb_put(txn_, tree_, &k, &v, 0), 0);
}

void StoredTree::Delete(std::string const& key) {
  std::string own_key = key;
  MDB_val k{own_key.size(), own_key.data()};
  EXPECT_EQ(mdb_del(txn_, tree_, &k, nullptr), 0);
}

void StoredTree::Change(std::string const& key, std::function<void(std::string&)> const& change) {
  std::string record = WithoutChecksum(Get(key));
  change(record);
  PutChecked(key, record);
}

std::string StoredTree::Find(std::function<bool(std::string const&)> const& is) {
  std::string found;
  int count = 0;
  for (auto const& [key, value] : All()) {
    if (!is(key)) continue;
    found = key;
    ++count;
  }
  EXPECT_EQ(count, 1);
  return found;
}

std::string StoredTree::FindPrefix(std::string const& prefix) {
  return Find([&](std::string const& key) { return key.starts_with(prefix); });
}

std::string ReadFile(std::string const& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream content;
  content << in.rdbuf();
  return content.str();
}

void WriteFile(std::string const& path, std::string const& content) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << content;
}

}  // namespace lscoredb_test
