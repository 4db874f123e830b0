#include "row.h"

#include <limits>

#include "crc32c.h"
#include "status.h"

namespace lscore {
namespace {

// The mark of a wide text, in an end of 4 bytes and in one of 8.
constexpr std::uint64_t kWideSmall = std::uint64_t{1} << 31;
constexpr std::uint64_t kWideBig = std::uint64_t{1} << 63;

std::size_t BitmapSize(Layout const& layout) { return (layout.bit_count() + 63) / 64 * 8; }

}  // namespace

// ---- reading -----------------------------------------------------------------------------------

void RowImage::ThrowDamaged() { Throw(LSCOREDB_DAMAGED); }

std::uint64_t RowImage::End(std::size_t ends, std::uint32_t index, bool* wide) const {
  if ((flags() & format::kBigEnds) != 0) {
    auto const end = Load<std::uint64_t>(bytes_ + ends + std::size_t{8} * index);
    *wide = (end & kWideBig) != 0;
    return end & ~kWideBig;
  }
  auto const end = Load<std::uint32_t>(bytes_ + ends + std::size_t{4} * index);
  *wide = (end & kWideSmall) != 0;
  return end & ~kWideSmall;
}

// Presence bits are counted instead of stored offsets: the variable values follow 8 bytes for each
// present fixed column and one end for each of their own.
RowImage::Variable RowImage::FindVariable(Layout const& layout) const {
  std::uint32_t const fixed = CountBelow(layout.fixed_count());
  Variable all{};
  all.columns_from = (flags() & format::kHasSetspec) != 0 ? 1 : 0;
  all.count = all.columns_from + CountBelow(layout.bit_count()) - fixed;
  all.ends = FixedOffset(layout) + std::size_t{8} * fixed;
  all.values = all.ends + std::size_t{(flags() & format::kBigEnds) != 0 ? 8U : 4U} * all.count;
  return all;
}

// A value begins where the one before it ends.
void RowImage::ReadVariable(Variable const& all, std::uint32_t index, Cell& cell) const {
  bool ignored = false;
  if (index >= all.count || all.values > size_) [[unlikely]]
    ThrowDamaged();
  std::uint64_t const begin = index == 0 ? 0 : End(all.ends, index - 1, &ignored);
  std::uint64_t const end = End(all.ends, index, &cell.wide);
  bool const holds =
      begin <= end && end <= size_ - all.values && !(cell.wide && (end - begin) % 2 != 0);
  if (!holds) [[unlikely]]
    ThrowDamaged();
  cell.data = bytes_ + all.values + begin;
  cell.size = end - begin;
}

Cell RowImage::Read(Layout const& layout, Column const& column) const {
  Cell cell;
  cell.present = Present(column);
  if (!cell.present) return cell;
  if (column.fixed) {
    cell.bits = Fixed(layout, column);
    return cell;
  }
  Variable const all = FindVariable(layout);
  std::uint32_t const below = CountBelow(column.bit) - CountBelow(layout.fixed_count());
  ReadVariable(all, all.columns_from + below, cell);
  return cell;
}

Cell RowImage::Setspec(Layout const& layout) const {
  Cell cell;
  cell.present = (flags() & format::kHasSetspec) != 0;
  if (cell.present) ReadVariable(FindVariable(layout), 0, cell);
  return cell;
}

// ---- checking ----------------------------------------------------------------------------------

// Checks an image from front to back, each part only after those that give its position: checksum
// and layout, then that no presence bit is set beyond the layout's columns, then that the ends
// ascend and the last one is the end of the image.
class ImageCheck {
 public:
  ImageCheck(std::string_view bytes, ObjectId id, Layout const& layout)
      : bytes_(bytes), id_(id), layout_(layout), image_(bytes) {}

  bool Holds() const { return HeaderHolds() && BitsHold() && EndsHold(); }

 private:
  bool HeaderHolds() const {
    return bytes_.size() >= format::kHeaderSize + BitmapSize(layout_) &&
           Load<std::uint32_t>(bytes_.data() + format::kCrcOffset) ==
               RowImage::Checksum(bytes_, id_, layout_) &&
           image_.layout() == layout_.number();
  }
  bool BitsHold() const {
    std::uint32_t const used = layout_.bit_count() % 64;
    return used == 0 || (image_.Word(layout_.bit_count() / 64) >> used) == 0;
  }
  bool EndsHold() const {
    RowImage::Variable const all = image_.FindVariable(layout_);
    if (all.values > bytes_.size()) return false;
    std::uint64_t last = 0;
    for (std::uint32_t i = 0; i < all.count; ++i) {
      bool wide = false;
      std::uint64_t const end = image_.End(all.ends, i, &wide);
      if (end < last || (wide && (end - last) % 2 != 0)) return false;
      last = end;
    }
    return last == bytes_.size() - all.values;
  }

  std::string_view bytes_;
  ObjectId id_;
  Layout const& layout_;
  RowImage image_;
};

// The id and the number of columns are part of the checksum, so an image under another object's
// key, or read by a layout of another size, is detected.
std::uint32_t RowImage::Checksum(std::string_view bytes, ObjectId id, Layout const& layout) {
  char owner[sizeof(std::uint64_t) + sizeof(std::uint32_t)];
  StoreAt(owner, Raw(id));
  StoreAt(owner + sizeof(std::uint64_t), layout.bit_count());
  return Crc32c({owner, sizeof owner}, bytes.substr(sizeof(std::uint32_t)));
}

bool RowImage::Validate(std::string_view bytes, ObjectId id, Layout const& layout) {
  return ImageCheck(bytes, id, layout).Holds();
}

bool IsStub(std::string_view bytes) {
  return bytes.size() == format::kStubSize &&
         (Load<std::uint16_t>(bytes.data() + format::kFlagsOffset) & format::kInChunks) != 0;
}

std::uint64_t WholeSize(std::string_view stub) {
  return Load<std::uint64_t>(stub.data() + format::kHeaderSize);
}

bool StubHolds(std::string_view stub) {
  return Load<std::uint32_t>(stub.data() + format::kCrcOffset) == Crc32c(stub.substr(4));
}

// ---- building ----------------------------------------------------------------------------------

namespace {

// Visits the columns of a layout in the order of their presence bits: fixed ones first.
template <typename Visit>
void ForEachByBit(Layout const& layout, Visit&& visit) {
  for (bool const fixed : {true, false}) {
    for (std::uint32_t i = kFirstStoredColumn; i < layout.column_count(); ++i) {
      if (layout.column(i).fixed == fixed) visit(layout.column(i), i - kFirstStoredColumn);
    }
  }
}

std::size_t VariableSize(Layout const& layout, Cell const& setspec, std::span<Cell const> cells) {
  std::size_t size = setspec.present ? setspec.size : 0;
  ForEachByBit(layout, [&](Column const& column, std::uint32_t i) {
    if (!column.fixed && cells[i].present) size += cells[i].size;
  });
  return size;
}

void AppendHeader(std::string& image, Layout const& layout, CommitId commit, Cell const& setspec,
                  bool big) {
  unsigned flags = big ? format::kBigEnds : 0u;
  if (setspec.present) flags |= format::kHasSetspec;
  Append(image, std::uint32_t{0});
  Append(image, Raw(layout.number()));
  Append(image, static_cast<std::uint16_t>(flags));
  Append(image, Raw(commit));
}

void AppendBits(std::string& image, Layout const& layout, std::span<Cell const> cells) {
  std::size_t const start = image.size();
  image.append(BitmapSize(layout), '\0');
  ForEachByBit(layout, [&](Column const& column, std::uint32_t i) {
    if (!cells[i].present) return;
    char& byte = image[start + column.bit / 8];
    byte = static_cast<char>(static_cast<unsigned char>(byte) | (1u << (column.bit % 8)));
  });
}

void AppendFixed(std::string& image, Layout const& layout, std::span<Cell const> cells) {
  ForEachByBit(layout, [&](Column const& column, std::uint32_t i) {
    if (column.fixed && cells[i].present) Append(image, cells[i].bits);
  });
}

void AppendEnds(std::string& image, Layout const& layout, Cell const& setspec,
                std::span<Cell const> cells, bool big) {
  std::uint64_t end = 0;
  auto const append = [&](Cell const& cell) {
    end += cell.size;
    if (big) {
      Append(image, end | (cell.wide ? kWideBig : 0));
    } else {
      Append(image, static_cast<std::uint32_t>(end | (cell.wide ? kWideSmall : 0)));
    }
  };
  if (setspec.present) append(setspec);
  ForEachByBit(layout, [&](Column const& column, std::uint32_t i) {
    if (!column.fixed && cells[i].present) append(cells[i]);
  });
}

}  // namespace

// Ends have 4 bytes, of which one bit marks wide texts, unless the values need more.
std::string_view ImageBuilder::Build(ObjectId id, Layout const& layout, CommitId commit,
                                     Cell const& setspec, std::span<Cell const> cells) {
  bool const big = VariableSize(layout, setspec, cells) >= kWideSmall;
  image_.clear();
  AppendHeader(image_, layout, commit, setspec, big);
  AppendBits(image_, layout, cells);
  AppendFixed(image_, layout, cells);
  AppendEnds(image_, layout, setspec, cells, big);
  if (setspec.present) image_.append(setspec.bytes());
  ForEachByBit(layout, [&](Column const& column, std::uint32_t i) {
    if (!column.fixed && cells[i].present) image_.append(cells[i].bytes());
  });
  StoreAt(image_.data() + format::kCrcOffset, RowImage::Checksum(image_, id, layout));
  return image_;
}

std::string ImageBuilder::Stub(std::string_view image) {
  std::string stub(image.substr(0, format::kHeaderSize));
  unsigned const flags =
      Load<std::uint16_t>(stub.data() + format::kFlagsOffset) | format::kInChunks;
  StoreAt(stub.data() + format::kFlagsOffset, static_cast<std::uint16_t>(flags));
  Append(stub, std::uint64_t{image.size()});
  StoreAt(stub.data() + format::kCrcOffset, Crc32c(std::string_view(stub).substr(4)));
  return stub;
}

}  // namespace lscore
