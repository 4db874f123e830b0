#ifndef SAGLEME_TOOL_BASE_WATCH_H
#define SAGLEME_TOOL_BASE_WATCH_H

// Lets Ctrl-C stop the long work of the database itself, and tells how far it is. A call that was
// stopped gives LSCOREDB_STOPPED.

#include <cstdint>
#include <functional>

namespace tool {

// `total` is 0 where it is not known.
using WatchReport = std::function<void(std::uint64_t done, std::uint64_t total)>;

// The watch of the thread for as long as it lives. The one before is back afterwards.
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
