#ifndef LSCOREDB_SRC_LOG_BATCH_H
#define LSCOREDB_SRC_LOG_BATCH_H

// A batch of a store with a log. It writes into the active overlay, under the number of the commit
// to be, which no snapshot sees yet. The same bytes are the record of the log.
//
// A record that outgrows the log can only go into the image. The batch then writes what it has into
// a batch of the image and goes on there, so that it takes no more memory. Only its entries of
// kMeta stay in the overlay too, which shows the image's own entries as those of the content. If
// changes are kept, the whole record is needed for those who read them, and the batch waits with
// the image for its commit.

#include <mutex>

#include "log_store.h"
#include "log_view.h"
#include "record_writer.h"

namespace lscore {

class LogBatch final : public Batch {
 public:
  // Waits for the other batches of the process, then for those of other processes.
  explicit LogBatch(LogStore& store);
  ~LogBatch() override;

  bool Get(Tree tree, std::string_view key, std::string_view* value) const override {
    return view_.Get(tree, key, value);
  }
  void OpenCursor(Tree tree, std::unique_ptr<TreeCursor>& cursor) const override {
    view_.OpenCursor(tree, cursor, false);
  }
  void Put(Tree tree, std::string_view key, std::string_view value) override;
  bool PutNew(Tree tree, std::string_view key, std::string_view value) override;
  void Append(Tree tree, std::string_view key, std::string_view value) override;
  bool Delete(Tree tree, std::string_view key) override;
  // Deletes also what is not there, which saves the look-up.
  void Remove(Tree tree, std::string_view key) override;
  bool takes_notes() const override;
  void Note(std::string_view note) override;
  void Commit() override;
  // Changes with the commit for how long commits are kept.
  void SetRetention(Retention const& retention);

 private:
  void Write(logformat::Change const& change);
  std::uint64_t LastRow() const;
  bool IsBehindRows(std::string_view key);
  // The batch of the image that the tree is written into; null: the overlay.
  Batch* ImageFor(Tree tree) const { return tree == Tree::kMeta ? nullptr : image_.get(); }
  void MoveToImage();
  std::span<iovec> FinishRecord(LogPosition const& at);
  void CommitToLog(bool sync);
  void CommitToImage();
  void End() noexcept;

  LogStore& store_;
  std::unique_lock<std::mutex> lock_;
  std::shared_ptr<LogLayers const> layers_;
  LayeredView view_;
  RecordWriter record_;
  std::unique_ptr<Batch> image_;
  logformat::Head head_;
  std::optional<Retention> retention_;
  unsigned new_rows_ = 0;       // put as new, as far as kManyNewRows
  std::uint64_t last_row_ = 0;  // the highest id; known once there are kManyNewRows
  bool over_ = false;
};

}  // namespace lscore

#endif
