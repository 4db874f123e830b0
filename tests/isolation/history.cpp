#include "history.h"

#include <map>
#include <utility>

#include "dependencies.h"

namespace sagleme_isolation {
namespace {

using Version = std::pair<Oid, Number>;

std::string Text(Number number) { return "transaction " + std::to_string(number); }

std::string Text(Version const& version) {
  std::string text = "version ";
  text += std::to_string(version.second);
  text += " of object ";
  return text += std::to_string(version.first);
}

class Check {
 public:
  explicit Check(History const& history) : history_(history) {
    for (Record const& record : history) {
      if (record.outcome == Outcome::kCommitted) committed_[record.number] = &record;
    }
  }

  std::vector<std::string> Run() {
    FollowVersions();
    for (Record const& record : history_) {
      CheckReads(record);
      if (record.outcome == Outcome::kConflict) CheckConflict(record);
    }
    if (found_.empty()) CheckOrder();
    return std::move(found_);
  }

 private:
  template <typename... Parts>
  void Report(Parts const&... parts) {
    std::string text;
    ((text += parts), ...);
    found_.push_back(std::move(text));
  }

  // The committed writer of a version; null for none and for the first version.
  Record const* WriterOf(Number version) const {
    auto const found = committed_.find(version);
    return found == committed_.end() ? nullptr : found->second;
  }

  // Who replaced a version, for each one that was.
  void FollowVersions() {
    for (auto const& [number, record] : committed_) {
      for (Write const& write : record->writes) {
        Version const replaced{write.object, write.replaced};
        auto const [place, first] = successors_.emplace(replaced, record);
        if (first) continue;
        Report(Text(replaced), " was replaced by ", Text(place->second->number), " and by ",
               Text(number));
      }
    }
  }

  void CheckReads(Record const& reader) {
    std::map<Oid, Number> seen;
    for (Read const& read : reader.reads) {
      auto const [place, first] = seen.emplace(read.object, read.version);
      if (!first && place->second != read.version) {
        Report(Text(reader.number), " read ", Text(Version{read.object, place->second}), " and ",
               Text(Version{read.object, read.version}));
      }
      CheckRead(reader, {read.object, read.version});
    }
  }

  void CheckRead(Record const& reader, Version const& version) {
    Record const* const writer = WriterOf(version.second);
    if (version.second != kBefore && writer == nullptr) {
      Report(Text(reader.number), " read ", Text(version), ", which was not committed");
      return;
    }
    if (writer != nullptr && writer->end_called > reader.begin_returned) {
      Report(Text(reader.number), " read ", Text(version), ", committed after it had begun");
    }
    auto const successor = successors_.find(version);
    if (successor != successors_.end() && successor->second->end_returned < reader.begin_called) {
      Report(Text(reader.number), " read ", Text(version), ", which ",
             Text(successor->second->number), " had replaced before");
    }
  }

  void CheckConflict(Record const& refused) {
    for (Write const& write : refused.writes) {
      auto const winner = successors_.find({write.object, write.replaced});
      if (winner == successors_.end()) continue;
      Record const& other = *winner->second;
      if (other.end_returned > refused.begin_called && other.end_called < refused.end_returned) {
        return;
      }
    }
    std::string wanted;
    for (Write const& write : refused.writes) {
      wanted += ' ';
      wanted += Text(Version{write.object, write.replaced});
    }
    Report(Text(refused.number), " was refused, and nobody had replaced", wanted);
  }

  void CheckOrder() {
    Dependencies dependencies(history_.size());
    std::map<Number, std::size_t> place;
    for (std::size_t i = 0; i < history_.size(); ++i) place[history_[i].number] = i;
    for (std::size_t i = 0; i < history_.size(); ++i) {
      Record const& record = history_[i];
      dependencies.AddLife(i, record.begin_called, record.end_returned,
                           record.outcome == Outcome::kCommitted);
      for (Read const& read : record.reads) {
        if (read.version != kBefore) dependencies.Add(place[read.version], i);
        auto const next = successors_.find({read.object, read.version});
        if (next == successors_.end() || next->second == &record) continue;
        dependencies.AddAnti(i, place[next->second->number]);
      }
      if (record.outcome != Outcome::kCommitted) continue;
      for (Write const& write : record.writes) {
        if (write.replaced != kBefore) dependencies.Add(place[write.replaced], i);
      }
    }
    std::vector<std::size_t> const circle = dependencies.FindCircle();
    if (circle.empty()) return;
    std::string text = "no order explains";
    for (std::size_t const i : circle) {
      text += ' ';
      text += Text(history_[i].number);
    }
    Report(text);
  }

  History const& history_;
  std::map<Number, Record const*> committed_;
  std::map<Version, Record const*> successors_;
  std::vector<std::string> found_;
};

}  // namespace

std::vector<std::string> Violations(History const& history) { return Check(history).Run(); }

}  // namespace sagleme_isolation
