// The stored form of rows, byte by byte: files are kept for years.

#include <gtest/gtest.h>
#include <lscoredb/lscoredb.h>

#include <array>

#include "crc32c.h"
#include "row.h"

namespace lscore {
namespace {

constexpr ObjectId kId{0x0102030405060708};

Column ColumnOf(std::uint64_t token, std::uint8_t type) {
  Column column;
  column.token = Token{token};
  column.type = type;
  column.nullable = true;
  return column;
}

Layout const& TheLayout() {
  static Layout const layout(LayoutNumber{0x1234}, LayoutNumber{}, Token{50}, {CommitId{3}, 0},
                             {ColumnOf(100, LORV_TYPE_STRING), ColumnOf(101, LORV_TYPE_LONG),
                              ColumnOf(102, LORV_TYPE_LONG), ColumnOf(103, LORV_TYPE_BINARY),
                              ColumnOf(104, LORV_TYPE_STRING)});
  return layout;
}

Cell CellOf(std::string_view bytes, bool wide = false) {
  Cell cell;
  cell.present = true;
  cell.data = bytes.data();
  cell.size = bytes.size();
  cell.wide = wide;
  return cell;
}

// A text, no first number, a second one, no binary, a wide text.
std::array<Cell, 5> TheCells() {
  std::array<Cell, 5> cells{};
  cells[0] = CellOf("one");
  cells[2].present = true;
  cells[2].bits = 0x99;
  cells[4] = CellOf("w1w2", true);
  return cells;
}

std::string Build(Cell const& setspec) {
  ImageBuilder builder;
  return std::string(
      builder.Build(kId, TheLayout(), CommitId{0x1122334455667788}, setspec, TheCells()));
}

std::string Hex(std::string_view bytes) {
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string hex;
  for (char const byte : bytes) {
    hex += kDigits[static_cast<unsigned char>(byte) >> 4];
    hex += kDigits[static_cast<unsigned char>(byte) & 15];
  }
  return hex;
}

TEST(RowImageTest, RowWithASetSpecifier_HasTheseBytes) {
  std::string const image = Build(CellOf("set"));
  EXPECT_EQ(
      "3412"                      // layout
      "0100"                      // flags
      "8877665544332211"          // commit
      "1600000000000000"          // presence: the second number, the first and the third text
      "9900000000000000"          // the number
      "03000000060000000a000080"  // ends of the set and the texts, the last one wide
      "7365746f6e6577317732",     // their bytes
      Hex(std::string_view(image).substr(4)));
}

TEST(RowImageTest, RowWithoutASetSpecifier_HasNoEndForIt) {
  std::string const image = Build(Cell{});
  EXPECT_EQ(
      "3412"
      "0000"
      "8877665544332211"
      "1600000000000000"
      "9900000000000000"
      "0300000007000080"
      "6f6e6577317732",
      Hex(std::string_view(image).substr(4)));
  EXPECT_FALSE(RowImage(image).Setspec(TheLayout()).present);
}

TEST(RowImageTest, Checksum_CoversIdNumberOfColumnsAndBytes) {
  std::string const image = Build(CellOf("set"));
  std::string const owner("\x08\x07\x06\x05\x04\x03\x02\x01\x05\x00\x00\x00", 12);
  EXPECT_EQ(Crc32c(owner, std::string_view(image).substr(4)), Load<std::uint32_t>(image.data()));
}

TEST(RowImageTest, BuiltImage_ReadsBack) {
  std::string const image = Build(CellOf("set"));
  RowImage const row(image);
  Layout const& layout = TheLayout();
  ASSERT_TRUE(RowImage::Validate(image, kId, layout));
  EXPECT_EQ("set", row.Setspec(layout).bytes());
  EXPECT_FALSE(row.Setspec(layout).wide);
  EXPECT_EQ("one", row.Read(layout, layout.column(2)).bytes());
  EXPECT_FALSE(row.Read(layout, layout.column(3)).present);
  EXPECT_EQ(0x99U, row.Read(layout, layout.column(4)).bits);
  EXPECT_FALSE(row.Read(layout, layout.column(5)).present);
  EXPECT_EQ("w1w2", row.Read(layout, layout.column(6)).bytes());
  EXPECT_TRUE(row.Read(layout, layout.column(6)).wide);
}

TEST(RowImageTest, ChangedByte_IsNoImage) {
  std::string const image = Build(CellOf("set"));
  for (std::size_t i = 0; i < image.size(); ++i) {
    std::string changed = image;
    changed[i] = static_cast<char>(changed[i] ^ 1);
    EXPECT_FALSE(RowImage::Validate(changed, kId, TheLayout())) << i;
    EXPECT_FALSE(RowImage::Validate(image.substr(0, i), kId, TheLayout())) << i;
  }
  EXPECT_FALSE(RowImage::Validate(image + '\0', kId, TheLayout()));
}

TEST(RowImageTest, ImageOfAnotherObjectOrLayout_IsRefused) {
  std::string const image = Build(CellOf("set"));
  Layout const wider(LayoutNumber{0x1234}, LayoutNumber{}, Token{50}, {CommitId{3}, 0},
                     {ColumnOf(100, LORV_TYPE_STRING), ColumnOf(101, LORV_TYPE_LONG),
                      ColumnOf(102, LORV_TYPE_LONG), ColumnOf(103, LORV_TYPE_BINARY),
                      ColumnOf(104, LORV_TYPE_STRING), ColumnOf(105, LORV_TYPE_STRING)});
  EXPECT_FALSE(RowImage::Validate(image, ObjectId{Raw(kId) + 1}, TheLayout()));
  EXPECT_FALSE(RowImage::Validate(image, kId, wider));
}

// The lengths inside are looked at even where the checksum fits.
TEST(RowImageTest, EndsThatContradictTheImage_AreRefused) {
  constexpr std::size_t kEnds = 32;
  for (std::uint32_t const end : {0U, 7U, 11U, 0xFFFFFFFFU}) {
    std::string image = Build(CellOf("set"));
    StoreAt(image.data() + kEnds + 8, end);
    StoreAt(image.data(), RowImage::Checksum(image, kId, TheLayout()));
    EXPECT_FALSE(RowImage::Validate(image, kId, TheLayout())) << end;
  }
}

TEST(RowImageTest, Stub_HoldsTheSizeOfTheWhole) {
  std::string const image = Build(CellOf("set"));
  std::string const stub = ImageBuilder::Stub(image);
  EXPECT_EQ("341205008877665544332211" + Hex({"\x36\0\0\0\0\0\0\0", 8}), Hex(stub.substr(4)));
  EXPECT_TRUE(IsStub(stub));
  EXPECT_TRUE(StubHolds(stub));
  EXPECT_EQ(image.size(), WholeSize(stub));
  EXPECT_FALSE(IsStub(image));
  std::string changed = stub;
  changed[16] = static_cast<char>(changed[16] ^ 1);
  EXPECT_FALSE(StubHolds(changed));
}

}  // namespace
}  // namespace lscore
