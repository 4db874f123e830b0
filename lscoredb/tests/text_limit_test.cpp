// Texts of more units than a length can say.

#include <sys/mman.h>
#include <unistd.h>

#include <system_error>

#include "kernel_test.h"

namespace lscoredb_test {
namespace {

constexpr std::uint32_t kText = 2;

// A text of 2^32 units in address space alone: all of it is one small file, mapped over and over.
class HugeText {
 public:
  HugeText() {
    file_ = memfd_create("text", 0);
    Require(file_ >= 0 && ftruncate(file_, kPiece) == 0);
    void* const begin = mmap(nullptr, kSize + kPiece, PROT_READ,
                             MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    Require(begin != MAP_FAILED);
    begin_ = static_cast<char*>(begin);
    Fill();
    for (std::size_t at = 0; at < kSize; at += kPiece) {
      Require(mmap(begin_ + at, kPiece, PROT_READ, MAP_SHARED | MAP_FIXED, file_, 0) ==
              begin_ + at);
    }
  }
  ~HugeText() {
    munmap(begin_, kSize + kPiece);
    close(file_);
  }
  HugeText(HugeText const&) = delete;
  HugeText& operator=(HugeText const&) = delete;

  char16_t const* text() const { return reinterpret_cast<char16_t const*>(begin_); }

 private:
  static constexpr std::size_t kPiece = std::size_t{64} << 20;
  static constexpr std::size_t kSize = sizeof(char16_t) << 32;

  static void Require(bool condition) {
    if (!condition) throw std::system_error(errno, std::generic_category());
  }
  void Fill() const {
    std::string const units(std::size_t{1} << 20, 'x');
    for (std::size_t at = 0; at < kPiece; at += units.size()) {
      auto const offset = static_cast<off_t>(at);
      Require(pwrite(file_, units.data(), units.size(), offset) ==
              static_cast<ssize_t>(units.size()));
    }
  }

  int file_ = -1;
  char* begin_ = nullptr;
};

TEST(TextLimitTest, TextOfTooManyUnits_IsRefusedAndChangesNothing) {
  Database database;
  Session session(database);
  session.Begin();
  LayoutId const layout = session.CreateLayout(50, {{LORV_TYPE_STRING, 100}});
  Oid const row = session.Insert(layout);
  session.PutString(row, kText, u"short");
  HugeText const huge;
  EXPECT_STATUS(LSCOREDB_TOO_LARGE,
                lorv_context_put_string(session.context(), row, 0, kText, huge.text()));
  EXPECT_STATUS(LSCOREDB_TOO_LARGE,
                lorv_context_put_setspec(session.context(), row, 0, huge.text()));
  EXPECT_EQ(session.String(row, kText), u"short");
  session.Commit();
}

}  // namespace
}  // namespace lscoredb_test
