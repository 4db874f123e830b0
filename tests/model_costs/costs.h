#ifndef SAGLEME_TESTS_MODEL_COSTS_COSTS_H
#define SAGLEME_TESTS_MODEL_COSTS_COSTS_H

// What a schema change costs, counted at the kernel: calls, rows, layouts. The formulas are those
// of docs/evolution.md; the tests hold them against what is counted, to the call.

#include <string>

#include "support/database.h"
#include "support/recording_kernel.h"

namespace sagleme_costs {

struct Cost {
  std::size_t calls = 0;  // of kernel functions, text conversions left out
  std::size_t inserted = 0;
  std::size_t deleted = 0;
  std::size_t layouts = 0;

  Cost& operator+=(Cost const& other) {
    calls += other.calls;
    inserted += other.inserted;
    deleted += other.deleted;
    layouts += other.layouts;
    return *this;
  }
  bool operator==(Cost const&) const = default;
};

std::ostream& operator<<(std::ostream& out, Cost const& cost);

// A row of Vacuum is inserted for the first request of a table, and changed by later ones.
enum class Pending { kNothing, kRequest };

// ---- formulas, for tables of plain columns without indexes and classes
// -----------------------------

// The table that is named, without its descendants. `own`: its own columns, `added`: new ones.
Cost AddColumnsTop(std::size_t own, std::size_t added, Pending pending);
// Each descendant. `behind`: its columns that stand behind those of the table that is named, and
// move.
Cost AddColumnsBelow(std::size_t own, std::size_t behind, std::size_t added, Pending pending);

// `behind`: columns with a higher ordinal than the dropped one.
Cost DropColumnTop(std::size_t own, std::size_t behind, Pending pending);
Cost DropColumnBelow(std::size_t own, std::size_t behind, Pending pending);

Cost RenameColumnTop();
Cost RenameColumnBelow();

// `referring`: rows of reference columns whose type is the table, inherited copies included.
Cost RenameTable(std::size_t referring);

// `columns`: all columns of the table. With children the sum over the subtree, and once the call's
// own.
Cost DropTableCall();
Cost DropTableEach(std::size_t columns, std::size_t children, Pending pending, bool force);

Cost DropCascadeCall();
Cost DropCascadeEach(std::size_t columns, std::size_t children);

// `inherited`: all columns of the base.
Cost CreateTable(std::size_t inherited, std::size_t own);

// An index over `columns` columns, made by names, and dropped by name.
Cost CreateIndex(std::size_t columns);
Cost DropIndex(std::size_t columns);

// ---- the fixture
// ----------------------------------------------------------------------------------

class CostTest : public sagleme_test::DatabaseTest {
 protected:
  void SetUp() override;

  // Runs `change`, which must succeed, and returns what it cost.
  Cost CostOf(std::function<uint32_t()> const& change);

  void Create(std::string const& name, std::string const& base, int own_columns);
  Cost Add(std::string const& table, std::vector<std::string> const& columns);
  Cost Drop(std::string const& table, std::string const& column);
  Cost Rename(std::string const& table, std::string const& column, std::string const& name);
  Cost DropTable(std::string const& table, bool drop_children, bool force);
  Cost DropCascade(std::string const& table);

  std::uint64_t Generation() const;
  std::size_t ColumnsOf(std::string const& table) const;
  unsigned short LayoutOf(std::string const& table) const;
};

}  // namespace sagleme_costs

#endif
