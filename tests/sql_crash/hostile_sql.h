#ifndef SAGLEME_TESTS_SQL_CRASH_HOSTILE_SQL_H
#define SAGLEME_TESTS_SQL_CRASH_HOSTILE_SQL_H

// Random statements that nobody in his right mind writes: most follow the grammars of SQLite and
// of the definitions, with operands of any type and size, and some have words lost, doubled or
// swapped.

#include <cstdint>
#include <random>
#include <span>
#include <string>
#include <string_view>

namespace sql_crash {

class HostileSql {
 public:
  explicit HostileSql(std::uint64_t seed) : random_(seed) {}

  // One statement of those that leave the schema's tables and the connection alone.
  std::string Statement();

 private:
  std::size_t Below(std::size_t count) { return random_() % count; }
  bool Chance(unsigned percent) { return Below(100) < percent; }
  std::string Pick(std::span<std::string_view const> choices) {
    return std::string(choices[Below(choices.size())]);
  }

  std::string Table();
  std::string Column();
  std::string Constant();
  std::string Expression(int depth);
  std::string Call(int depth);
  std::string Condition(int depth);
  std::string Select(int depth);
  std::string Change();
  std::string Definition();
  std::string Quoted(std::string const& text) const;
  std::string Spoil(std::string text);

  std::mt19937_64 random_;
};

}  // namespace sql_crash

#endif
