// A host's leak checker that looks while its database is open and rows are in memory: nothing of
// ours is reported, and what leaks is.

#include <lscoredb/host.h>
#include <sanitizer/lsan_interface.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

namespace {

constexpr int kRows = 100;

lscoredb* database = nullptr;
std::uint64_t context = 0;

void Check(std::uint32_t status) {
  if (status == 0) return;
  std::printf("%s\n", lscoredb_status_text(status));
  _exit(EXIT_FAILURE);
}

// Rows of many sizes, read by a transaction that is over.
[[gnu::noinline]] void FillRowCache() {
  LORVI_COLUMN_DEFINITION columns[2]{};
  columns[0].token = 100;
  columns[0].type = LORV_TYPE_STRING;
  columns[0].is_nullable = 1;
  std::uint16_t layout = 0;
  std::uint64_t rows[kRows];
  Check(lscoredb_begin(context, LSCOREDB_READ_WRITE));
  Check(lorvi_context_create_layout(context, 50, 0, columns, 0, &layout));
  for (int i = 0; i < kRows; ++i) {
    std::u16string const text(static_cast<std::size_t>(i) * 20, u'x');
    Check(lorv_context_insert(context, layout, &rows[i]));
    Check(lorv_context_put_string(context, rows[i], 0, 2, text.c_str()));
  }
  Check(lscoredb_commit(context));
  Check(lscoredb_begin(context, LSCOREDB_READ_ONLY_TRANSACTION));
  for (std::uint64_t const row : rows) {
    LORV_STRING* text = nullptr;
    Check(lorv_context_get_string(context, row, 0, 2, &text));
  }
  Check(lscoredb_rollback(context));
}

[[gnu::noinline]] void Leak() {
  void* volatile block = std::malloc(100);
  static_cast<void>(block);
  block = nullptr;
}

// The places on the stack where addresses may be left.
[[gnu::noinline]] void CleanStack() {
  unsigned char volatile room[16384];
  for (unsigned char volatile& byte : room) byte = 0;
}

}  // namespace

int main() {
  Check(lscoredb_open(nullptr, nullptr, &database));
  Check(lscoredb_context_open(database, &context));
  FillRowCache();
  CleanStack();
  if (__lsan_do_recoverable_leak_check() != 0) {
    std::puts("rows in memory are reported as leaks");
    _exit(EXIT_FAILURE);
  }
  Leak();
  CleanStack();
  if (__lsan_do_recoverable_leak_check() == 0) {
    std::puts("the leak checker finds nothing at all");
    _exit(EXIT_FAILURE);
  }
  _exit(EXIT_SUCCESS);
}
