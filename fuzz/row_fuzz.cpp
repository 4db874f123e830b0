// Row images: any bytes with a right checksum are refused or can be read in full, and what was
// built reads back.

#include <lscoredb/lscoredb.h>

#include "input.h"
#include "row.h"

using sagleme_fuzz::Input;
using sagleme_fuzz::Require;
using namespace lscore;

namespace {

constexpr ObjectId kId{123};

Layout MakeLayout(Input& input) {
  std::vector<Column> columns(input.Below(80));
  std::uint64_t token = 100;
  for (Column& column : columns) {
    column.token = Token{token++};
    column.type = static_cast<std::uint8_t>(1 + input.Below(9));
    column.nullable = input.Flag();
  }
  return {LayoutNumber{7}, kNoLayout, Token{50}, {}, columns};
}

void RequireInside(std::string const& image, Cell const& cell) {
  if (!cell.present || cell.data == nullptr) return;
  Require(cell.data >= image.data() && cell.data <= image.data() + image.size(),
          "a value begins inside of its row");
  Require(cell.size <= static_cast<std::size_t>(image.data() + image.size() - cell.data),
          "a value ends inside of its row");
  Require(!cell.wide || cell.size % 2 == 0, "a wide text has whole units");
}

// Everything that a reader does with an image that was found good.
void ReadAll(std::string const& image, Layout const& layout) {
  RowImage const row(image);
  RequireInside(image, row.Setspec(layout));
  std::u16string units;
  Unpack(row.Setspec(layout).text(), units);
  for (std::uint32_t i = kFirstStoredColumn; i < layout.column_count(); ++i) {
    Cell const cell = row.Read(layout, layout.column(i));
    RequireInside(image, cell);
    if (cell.present && layout.column(i).type == LORV_TYPE_STRING) Unpack(cell.text(), units);
  }
}

void ReadForeign(Input& input) {
  Layout const layout = MakeLayout(input);
  std::vector<std::uint8_t> const bytes = input.Rest();
  std::string image(bytes.begin(), bytes.end());
  if (image.size() >= format::kHeaderSize) {
    StoreAt(image.data() + format::kLayoutOffset, Raw(layout.number()));
    StoreAt(image.data() + format::kCrcOffset, RowImage::Checksum(image, kId, layout));
  }
  image.shrink_to_fit();
  if (RowImage::Validate(image, kId, layout)) ReadAll(image, layout);
}

// Bytes turn into others, and the checksum has been made to fit.
void ReadChanged(Input& input, Layout const& layout, std::string image) {
  std::size_t const changeable = image.size() - format::kHeaderSize;
  for (std::size_t changes = input.Below(4); changes > 0 && changeable > 0; --changes) {
    std::size_t const at = format::kHeaderSize + input.Below(changeable);
    image[at] = static_cast<char>(input.Take<std::uint8_t>());
  }
  StoreAt(image.data() + format::kCrcOffset, RowImage::Checksum(image, kId, layout));
  if (RowImage::Validate(image, kId, layout)) ReadAll(image, layout);
}

void BuildAndRead(Input& input) {
  Layout const layout = MakeLayout(input);
  std::vector<std::vector<std::uint8_t>> held(layout.bit_count());
  std::vector<Cell> cells(layout.bit_count());
  for (std::size_t i = 0; i < cells.size(); ++i) {
    Column const& column = layout.column(static_cast<std::uint32_t>(i) + kFirstStoredColumn);
    cells[i].present = input.Flag();
    if (column.fixed) {
      cells[i].bits = input.Take<std::uint64_t>();
      continue;
    }
    held[i] = input.Bytes(20);
    cells[i].data = reinterpret_cast<char const*>(held[i].data());
    cells[i].size = held[i].size();
    cells[i].wide = held[i].size() % 2 == 0 && input.Flag();
  }
  Cell setspec;
  setspec.present = input.Flag();
  setspec.data = "ABCD";
  setspec.size = setspec.present ? input.Below(5) : 0;
  ImageBuilder builder;
  std::string const image(builder.Build(kId, layout, CommitId{9}, setspec, cells));
  Require(RowImage::Validate(image, kId, layout), "what is built is good");
  RowImage const row(image);
  Require(row.Setspec(layout).bytes() == setspec.bytes().substr(0, setspec.size),
          "a set reads back");
  for (std::size_t i = 0; i < cells.size(); ++i) {
    Column const& column = layout.column(static_cast<std::uint32_t>(i) + kFirstStoredColumn);
    Cell const cell = row.Read(layout, column);
    Require(cell.present == cells[i].present, "presence reads back");
    if (!cell.present) continue;
    Require(column.fixed ? cell.bits == cells[i].bits : cell.bytes() == cells[i].bytes(),
            "a value reads back");
  }
  ReadChanged(input, layout, image);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
  Input input(data, size);
  input.Flag() ? BuildAndRead(input) : ReadForeign(input);
  return 0;
}
