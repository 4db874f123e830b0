#include "base/watch.h"

#include <lscoredb/watch.h>

#include "base/interrupt.h"

namespace tool {
namespace {

thread_local Watch* present = nullptr;

}  // namespace

Watch::Watch(WatchReport report) : report_(std::move(report)), before_(present) { Set(this); }

Watch::~Watch() { Set(before_); }

void Watch::Set(Watch* watch) {
  present = watch;
  lscoredb_watch(watch == nullptr ? nullptr : &Watch::Report, watch);
}

// No exception may cross the database's own code.
std::uint32_t Watch::Report(void* self, std::uint64_t done, std::uint64_t total) {
  try {
    CheckInterrupt();
    WatchReport const& report = static_cast<Watch*>(self)->report_;
    if (report) report(done, total);
    return 0;
  } catch (std::exception const&) {
    return 1;
  }
}

}  // namespace tool
