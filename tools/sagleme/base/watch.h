#ifndef SAGLEME_TOOL_BASE_WATCH_H
#define SAGLEME_TOOL_BASE_WATCH_H

// Lets Ctrl-C stop long work of the database itself, and reports its progress. A stopped call
// returns LSCOREDB_STOPPED.

#include <cstdint>
#include <functional>

namespace tool {

// `total` is 0 if it is unknown.
using WatchReport = std::function<void(std::uint64_t done, std::uint64_t total)>;

// The watch of the thread while it lives. The previous one is restored afterwards.
class Watch {
 public:
  explicit Watch(WatchReport report = {});
  ~Watch();
  Watch(Watch const&) = delete;
  Watch& operator=(Watch const&) = delete;

 private:
  static std::uint32_t Report(void* self, std::uint64_t done, std::uint64_t total);
  static void Set(Watch* watch);

  WatchReport report_;
  Watch* before_;
};

}  // namespace tool

#endif
