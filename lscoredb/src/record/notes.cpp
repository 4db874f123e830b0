#include "notes.h"

#include "bytes.h"
#include "status.h"

namespace lscore {
namespace {

constexpr std::uint8_t kWide = 1;
constexpr std::uint8_t kFormerWide = 2;
constexpr std::size_t kHeadSize = 24;

}  // namespace

void BeginNote(bool schema_changed, std::string& note) { note.assign(1, schema_changed ? 1 : 0); }

void AppendObject(ObjectNote const& object, std::span<Token const> columns, std::string& note) {
  Append(note, static_cast<std::uint8_t>(object.kind));
  Append(note, static_cast<std::uint8_t>((object.setspec.wide ? kWide : 0) |
                                         (object.former_setspec.wide ? kFormerWide : 0)));
  Append(note, Raw(object.layout));
  Append(note, Raw(object.former_layout));
  Append(note, static_cast<std::uint16_t>(columns.size()));
  Append(note, Raw(object.object));
  Append(note, static_cast<std::uint32_t>(object.setspec.bytes.size()));
  Append(note, static_cast<std::uint32_t>(object.former_setspec.bytes.size()));
  note.append(object.setspec.bytes);
  note.append(object.former_setspec.bytes);
  for (Token const column : columns) Append(note, Raw(column));
}

NoteReader::NoteReader(std::string_view note) {
  if (note.empty()) Throw(LSCOREDB_DAMAGED);
  schema_changed_ = note.front() != 0;
  rest_ = note.substr(1);
}

ObjectNote NoteReader::Next(std::vector<Token>* columns) {
  FieldReader fields(rest_);
  ObjectNote object;
  auto const kind = fields.Next<std::uint8_t>();
  auto const wide = fields.Next<std::uint8_t>();
  object.kind = NoteKind{kind};
  object.layout = LayoutNumber{fields.Next<std::uint16_t>()};
  object.former_layout = LayoutNumber{fields.Next<std::uint16_t>()};
  auto const count = fields.Next<std::uint16_t>();
  object.object = ObjectId{fields.Next<std::uint64_t>()};
  auto const size = fields.Next<std::uint32_t>();
  auto const former_size = fields.Next<std::uint32_t>();
  object.setspec = {fields.Bytes(size), (wide & kWide) != 0};
  object.former_setspec = {fields.Bytes(former_size), (wide & kFormerWide) != 0};
  std::string_view const tokens = fields.Bytes(std::size_t{count} * sizeof(Token));
  bool const known = kind >= Raw(NoteKind::kCreated) && kind <= Raw(NoteKind::kMoved);
  if (!fields.ok() || !known) Throw(LSCOREDB_DAMAGED);
  columns->clear();
  for (std::size_t i = 0; i < count; ++i) {
    columns->push_back(Token{Load<std::uint64_t>(tokens.data() + i * sizeof(Token))});
  }
  rest_.remove_prefix(kHeadSize + size + former_size + tokens.size());
  return object;
}

}  // namespace lscore
