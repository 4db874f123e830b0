#ifndef TESTS_HOST_HIERARCHY_MODEL_H
#define TESTS_HOST_HIERARCHY_MODEL_H

// A simple model in memory of tables, columns and objects that change their places.

#include <algorithm>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace hierarchy_test {

struct ModelColumn {
  std::string name;
  std::string target;  // of a reference; empty: a number
  bool text = false;   // of digits
};
struct ModelTable {
  std::string base;
  std::vector<int> own;                        // numbers of columns
  std::map<std::string, std::string> indexes;  // name -> column
};
struct ModelObject {
  std::string table;
  std::map<int, std::uint64_t> values;  // by column; null has no entry
};

// What the database should hold. Columns go by number, as they go by identity there.
struct Model {
  std::map<int, ModelColumn> columns;
  std::map<std::string, ModelTable> tables;
  std::map<std::uint64_t, ModelObject> objects;
  int next = 0;

  bool IsA(std::string table, std::string const& other) const {
    for (; !table.empty(); table = tables.at(table).base) {
      if (table == other) return true;
    }
    return other.empty();
  }
  std::vector<int> ColumnsOf(std::string const& table) const {
    if (table.empty()) return {};
    std::vector<int> all = ColumnsOf(tables.at(table).base);
    all.insert(all.end(), tables.at(table).own.begin(), tables.at(table).own.end());
    return all;
  }
  std::optional<int> ColumnNamed(std::string const& table, std::string const& name) const {
    for (int const column : ColumnsOf(table)) {
      if (columns.at(column).name == name) return column;
    }
    return std::nullopt;
  }
  bool SameKind(int a, int b) const {
    return columns.at(a).target == columns.at(b).target && columns.at(a).text == columns.at(b).text;
  }
  // The name is one that the table declares.
  int TakeOwn(std::string const& table, std::string const& name) {
    std::vector<int>& own = tables.at(table).own;
    auto const at = std::find_if(own.begin(), own.end(),
                                 [&](int each) { return columns.at(each).name == name; });
    int const column = *at;
    own.erase(at);
    return column;
  }
  // Values of a column in objects of a subtree become those of another one.
  void Rename(std::string const& top, int from, int to) {
    for (std::uint64_t const id : ObjectsOf(top)) {
      auto node = objects[id].values.extract(from);
      if (node.empty()) continue;
      node.key() = to;
      objects[id].values.insert(std::move(node));
    }
  }

  // Makes a column of the table one of the base, with equal ones of other tables. False if one is
  // not equal.
  bool PullUp(std::string const& table, std::string const& name, std::string const& base) {
    int const pulled = TakeOwn(table, name);
    for (std::string const& other : Subtree(base)) {
      auto const column = ColumnNamed(other, name);
      if (!column) continue;
      if (!SameKind(*column, pulled)) return false;
      auto const& own = tables.at(other).own;
      if (std::find(own.begin(), own.end(), *column) == own.end()) continue;
      TakeOwn(other, name);
      Rename(other, *column, pulled);
    }
    tables.at(base).own.push_back(pulled);
    return true;
  }
  // Makes a column of the table one of each of those below it. Returns how many values are lost.
  int PushDown(std::string const& table, std::string const& name,
               std::vector<std::string> const& below) {
    int const pushed = TakeOwn(table, name);
    std::set<std::uint64_t> kept;
    for (std::string const& each : below) {
      int const column = each == below.front() ? pushed : next++;
      columns[column] = columns.at(pushed);
      tables.at(each).own.push_back(column);
      auto const ids = ObjectsOf(each);
      kept.insert(ids.begin(), ids.end());
      if (column != pushed) Rename(each, pushed, column);
    }
    int lost = 0;
    for (std::uint64_t const id : ObjectsOf(table)) {
      if (!kept.contains(id)) lost += static_cast<int>(objects[id].values.erase(pushed));
    }
    for (std::string const& each : Subtree(table)) MoveIndexes(each, name, below);
    return lost;
  }
  // Those of a table that lost the column.
  void MoveIndexes(std::string const& table, std::string const& name,
                   std::vector<std::string> const& below) {
    if (ColumnNamed(table, name)) return;
    auto const held = tables.at(table).indexes;
    for (auto const& [index, column] : held) {
      if (column != name) continue;
      tables.at(table).indexes.erase(index);
      bool moved = false;
      for (std::string const& each : below) {
        if (!IsA(each, table)) continue;
        tables.at(each).indexes[moved ? index + "_" + each : index] = name;
        moved = true;
      }
    }
  }
  std::vector<std::string> Subtree(std::string const& top) const {
    std::vector<std::string> names;
    for (auto const& [name, table] : tables) {
      if (IsA(name, top)) names.push_back(name);
    }
    return names;
  }
  std::set<std::uint64_t> ObjectsOf(std::string const& top) const {
    std::set<std::uint64_t> ids;
    for (auto const& [id, object] : objects) {
      if (IsA(object.table, top)) ids.insert(id);
    }
    return ids;
  }
  // References that would lead astray if the objects got these tables.
  std::vector<std::pair<std::uint64_t, int>> Astray(
      std::map<std::uint64_t, std::string> const& targets_now,
      std::function<bool(std::uint64_t, std::string const&)> const& stays) const {
    std::vector<std::pair<std::uint64_t, int>> found;
    for (auto const& [id, object] : objects) {
      for (auto const& [column, value] : object.values) {
        std::string const& target = columns.at(column).target;
        if (!target.empty() && targets_now.contains(value) && !stays(value, target)) {
          found.emplace_back(id, column);
        }
      }
    }
    return found;
  }
};

}  // namespace hierarchy_test

#endif
