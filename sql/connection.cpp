#include "connection.h"

#include <algorithm>
#include <memory>

#include "attachment.h"
#include "failure.h"
#include "vfs.h"

namespace sagleme::sql {
Connection::~Connection() {
  for (Attachment* const each : attachments_) {
    if (each != nullptr) each->Join(nullptr, "");
  }
}

std::string Connection::Attach(std::string const& directory, std::string schema) {
  std::shared_ptr<Store> const store = Store::Open(directory);  // tells more than SQLite would
  if (schema.empty()) schema = NameOfPlace(store->directory());
  AttachFile(handle_, store->directory(), schema);
  Known(schema.c_str());
  return schema;
}

void Connection::Join(OpenTransaction of, std::string const& place, std::string const& schema) {
  AttachJoined(handle_, of, place, schema);
  Known(schema.c_str());
}

Attachment* Connection::Known(char const* schema) {
  Attachment* const found = FindAttachment(handle_, schema);
  if (found == nullptr || found->connection() == this) return found;
  found->Join(this, schema);
  attachments_.push_back(found);
  return found;
}

Attachment& Connection::Find(std::string const& schema) {
  if (!schema.empty()) {
    if (Attachment* const found = Known(schema.c_str())) return *found;
    throw Failure(SQLITE_ERROR,
                  "No sagleme database is attached as " + schema + "; see sagleme_attach.");
  }
  Attachment* only = nullptr;
  for (Attachment* const each : attachments_) {
    if (each == nullptr) continue;
    if (only != nullptr) {
      throw Failure(SQLITE_ERROR, "Both " + only->name() + " and " + each->name() +
                                      " are attached; say which one is meant.");
    }
    only = each;
  }
  if (only != nullptr) return *only;
  throw Failure(SQLITE_ERROR, "No sagleme database is attached; see sagleme_attach.");
}

Attachment* Connection::At(unsigned number) const {
  return number < attachments_.size() ? attachments_[number] : nullptr;
}

unsigned Connection::NumberOf(Attachment const* attachment) const {
  auto const at = std::find(attachments_.begin(), attachments_.end(), attachment);
  return static_cast<unsigned>(at - attachments_.begin());
}

void Connection::Remove(Attachment* attachment) {
  std::replace(attachments_.begin(), attachments_.end(), attachment,
               static_cast<Attachment*>(nullptr));
  Release(attachment);
}

// A statement in the middle of reading the file keeps it locked.
Hold::Hold(Connection& connection, Attachment& attachment) {
  if (!attachment.locked()) {
    std::string const sql = "SELECT 0 FROM " + Quoted(attachment.name()) + ".sqlite_schema LIMIT 1";
    sqlite3* const handle = connection.handle();
    int code = sqlite3_prepare_v2(handle, sql.c_str(), -1, &reader_, nullptr);
    if (code == SQLITE_OK) code = sqlite3_step(reader_);
    if (code != SQLITE_ROW) {
      std::string const text = sqlite3_errmsg(handle);
      sqlite3_finalize(reader_);
      throw Failure(code, text);
    }
  }
  attachment.transaction();
}

void Connection::Claim(Attachment* attachment) {
  if (writer_ != nullptr && writer_ != attachment) {
    throw Failure(SQLITE_ERROR,
                  "A transaction changes one sagleme database, and this one changes " +
                      writer_->name() + "; commit it before " + attachment->name() +
                      " is changed.");
  }
  writer_ = attachment;
}

void Connection::Release(Attachment* attachment) {
  if (writer_ == attachment) writer_ = nullptr;
}

}  // namespace sagleme::sql
