#ifndef LSCOREDB_SRC_ATTACHMENTS_H
#define LSCOREDB_SRC_ATTACHMENTS_H

// Values that users of the kernel keep with a database or a context, by key. They are released with
// their owner, the last one attached first. Any thread; Find takes no lock.

#include <atomic>
#include <memory>
#include <mutex>
#include <vector>

namespace lscore {

class Attachments {
 public:
  using Release = void (*)(void* value);

  Attachments() = default;
  ~Attachments();
  Attachments(Attachments const&) = delete;
  Attachments& operator=(Attachments const&) = delete;

  // Null when nothing is attached under the key.
  void* Find(void const* key) const noexcept {
    Entry const* entry = first_.load(std::memory_order_acquire);
    while (entry != nullptr && entry->key != key)
      entry = entry->next.load(std::memory_order_acquire);
    return entry == nullptr ? nullptr : entry->value;
  }

  // Returns what is attached under the key now: `value`, or what was there before.
  void* Attach(void const* key, void* value, Release release);

 private:
  struct Entry {
    void const* key;
    void* value;
    Release release;
    std::atomic<Entry*> next{nullptr};

    Entry(void const* k, void* v, Release r) : key(k), value(v), release(r) {}
  };

  std::atomic<Entry*> first_{nullptr};
  std::mutex mutex_;
  std::vector<std::unique_ptr<Entry>> entries_;  // in the order of the list
};

}  // namespace lscore

#endif
