// What a name means: the forms under which tables are stored, and the search by the last segments.

#include <sagleme/statuses.h>

#include <algorithm>

#include "model/model.h"

namespace sagleme_model {

namespace {

constexpr char16_t kSeparator = u'.';
constexpr std::uint32_t kTableNotFound = SAGLEME_TABLE_NOT_FOUND;
constexpr std::uint32_t kAmbiguous = SAGLEME_AMBIGUOUS_NAME;
constexpr Uid kSystemTable = ~Uid{0};

Text Join(std::vector<Text> const& segments) {
  Text text;
  for (Text const& segment : segments) {
    if (!text.empty()) text += kSeparator;
    text += segment;
  }
  return text;
}

// One stored table, in the order of the index that the search scans.
struct Stored {
  Text reversed;
  Text full_name;
  Uid table;
};

std::vector<Stored> AllStored(Model const& model) {
  std::vector<Stored> all;
  for (auto const& [row, table] : model.tables) {
    if (row != Model::kRoot) all.push_back({ReversedUid(table.name), table.name, row});
  }
  for (Text const& name : SystemTableNames())
    all.push_back({ReversedUid(name), name, kSystemTable});
  std::sort(all.begin(), all.end(),
            [](Stored const& a, Stored const& b) { return a.reversed < b.reversed; });
  return all;
}

std::vector<Stored> Beginning(std::vector<Stored> const& all, Text const& prefix) {
  std::vector<Stored> found;
  for (Stored const& each : all) {
    if (each.reversed.starts_with(prefix)) found.push_back(each);
  }
  return found;
}

bool EndsSegment(Stored const& candidate, Text const& prefix) {
  return candidate.reversed.size() > prefix.size() &&
         candidate.reversed[prefix.size()] == kSeparator;
}

[[noreturn]] void NotFound(Text const& dotted) {
  throw Failure{kTableNotFound, u"Table " + dotted + u" not found."};
}

[[noreturn]] void Ambiguous(Text const& dotted, std::vector<Stored> const& candidates) {
  throw Failure{kAmbiguous, u"Incomplete table name " + dotted + u" matches more than one table: " +
                                candidates[0].full_name + u", " + candidates[1].full_name +
                                (candidates.size() > 2 ? u", and more." : u".")};
}

}  // namespace

std::vector<Text> SplitName(Text const& name) {
  std::vector<Text> segments;
  Text segment;
  for (char16_t const unit : name) {
    if (unit != kSeparator) {
      segment += unit;
    } else {
      segments.push_back(segment);
      segment.clear();
    }
  }
  if (!segment.empty()) segments.push_back(segment);
  return segments;
}

Text ReversedUid(Text const& full_name) {
  std::vector<Text> segments = SplitName(full_name);
  segments.insert(segments.begin(), {u"Lorvenstack", u"Raw"});
  std::reverse(segments.begin(), segments.end());
  return Join(segments);
}

Uid Model::Resolve(Text const& dotted) const {
  std::vector<Text> segments = SplitName(dotted);
  Text const reading = Join(segments);
  std::reverse(segments.begin(), segments.end());
  Text const uid = Join(segments);
  std::vector<Stored> const all = AllStored(*this);
  for (Text const& exact : {uid, uid + u".Raw.Lorvenstack"}) {
    for (Stored const& each : all) {
      if (each.reversed == exact) return each.table;
    }
  }
  std::vector<Stored> const candidates = Beginning(all, uid);
  if (candidates.empty()) NotFound(reading);
  bool const ends = EndsSegment(candidates[0], uid);
  if (candidates.size() == 1 && !ends) NotFound(reading);
  if (candidates.size() == 1 || (ends && !EndsSegment(candidates[1], uid)))
    return candidates[0].table;
  Ambiguous(reading, candidates);
}

std::vector<Text> const& SystemTableNames() {
  static std::vector<Text> const names = {
      kRootName,
      u"Lorvenstack.Internal.Metadata.Token",
      u"Lorvenstack.Internal.Metadata.SetSpecifier",
      u"Lorvenstack.Internal.Metadata.MetaData",
      u"Lorvenstack.Internal.Metadata.Configuration",
      u"Lorvenstack.Internal.Metadata.TypeIdsMeta",
      u"Lorvenstack.Internal.Metadata.Vacuum",
      u"Lorvenstack.Metadata.DataType",
      u"Lorvenstack.Metadata.DbPrimitiveType",
      u"Lorvenstack.Metadata.MapPrimitiveType",
      u"Lorvenstack.Metadata.ClrPrimitiveType",
      u"Lorvenstack.Metadata.Table",
      u"Lorvenstack.Metadata.RawView",
      u"Lorvenstack.Metadata.VMView",
      u"Lorvenstack.Metadata.ClrClass",
      u"Lorvenstack.Metadata.Member",
      u"Lorvenstack.Metadata.Column",
      u"Lorvenstack.Internal.Metadata.RawColumn",
      u"Lorvenstack.Internal.Metadata.ReferenceRawColumn",
      u"Lorvenstack.Metadata.Property",
      u"Lorvenstack.Metadata.CodeProperty",
      u"Lorvenstack.Metadata.MappedProperty",
      u"Lorvenstack.Metadata.Index",
      u"Lorvenstack.Metadata.IndexedColumn",
      u"Lorvenstack.Internal.Metadata.UserSchemaGeneration",
  };
  return names;
}

Text ChildLetters(std::uint64_t n) {
  constexpr std::uint64_t kBase = 23;
  Text letters;
  for (; n != 0; n = (n - 1) / kBase) {
    letters.insert(letters.begin(), static_cast<char16_t>(u'a' + (n - 1) % kBase));
  }
  return letters;
}

}  // namespace sagleme_model
