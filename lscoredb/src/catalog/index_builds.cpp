#include "index_builds.h"

#include "bytes.h"
#include "checksummed_record.h"
#include "format.h"
#include "status.h"

namespace lscore {

// The record: phase (1), round (4), objects done (8) and in total (8), size of the name's text (4),
// the text, and then the position.

std::string BuildKey(IndexId id) {
  std::string key(1, format::kBuildLetter);
  AppendBig(key, Raw(id));
  return key;
}

IndexBuild ParseBuild(IndexId id, std::string_view record) {
  FieldReader fields(record);
  IndexBuild build;
  build.id = id;
  auto const phase = fields.Next<std::uint8_t>();
  build.phase = BuildPhase{phase};
  build.round = fields.Next<std::uint32_t>();
  build.done = fields.Next<std::uint64_t>();
  build.total = fields.Next<std::uint64_t>();
  auto const size = fields.Next<std::uint32_t>();
  std::string_view const name = fields.Bytes(size);
  std::size_t const read = 25 + std::size_t{size};
  if (!fields.ok() || read > record.size()) Throw(LSCOREDB_DAMAGED);
  if (phase == 0 || phase > static_cast<std::uint8_t>(BuildPhase::kAbandoned)) {
    Throw(LSCOREDB_DAMAGED);
  }
  build.name = ReadDefinitionText(name);
  build.position = record.substr(read);
  return build;
}

std::optional<IndexBuild> FindBuild(View const& view, IndexId id) {
  std::string_view record;
  if (!GetChecked(view, Tree::kDefinitions, BuildKey(id), &record)) return std::nullopt;
  return ParseBuild(id, record);
}

std::vector<IndexBuild> AllBuilds(View const& view) {
  std::vector<IndexBuild> builds;
  Cursor cursor;
  cursor.Open(view, Tree::kDefinitions);
  bool on = cursor.Seek({&format::kBuildLetter, 1});
  for (; on && cursor.key().front() == format::kBuildLetter; on = cursor.Next()) {
    if (cursor.key().size() != 9) Throw(LSCOREDB_DAMAGED);
    IndexId const id{LoadBig<std::uint64_t>(cursor.key().data() + 1)};
    builds.push_back(ParseBuild(id, StripChecksum(cursor.key(), cursor.value())));
  }
  return builds;
}

void WriteBuild(Batch& batch, IndexBuild const& build) {
  std::string name;
  AppendDefinitionText(name, build.name);
  std::string record;
  Append(record, static_cast<std::uint8_t>(build.phase));
  Append(record, build.round);
  Append(record, build.done);
  Append(record, build.total);
  Append(record, static_cast<std::uint32_t>(name.size()));
  record += name;
  record += build.position;
  PutChecked(batch, Tree::kDefinitions, BuildKey(build.id), record);
}

void DeleteBuild(Batch& batch, IndexId id) { batch.Remove(Tree::kDefinitions, BuildKey(id)); }

}  // namespace lscore
