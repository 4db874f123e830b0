#ifndef SAGLEME_BENCH_DELAYED_SERVER_H
#define SAGLEME_BENCH_DELAYED_SERVER_H

// A way to a server's socket on which every request takes longer, by a proxy in a process of its
// own. A delay is added once to each round trip, on the way to the server.

#include <sys/types.h>

#include <chrono>
#include <string>

namespace bench {

class DelayedServer {
 public:
  // `directory`: for the proxy's socket; there and empty. REQUIRES: this process has one thread.
  DelayedServer(std::string const& server, std::string directory, std::chrono::milliseconds delay);
  ~DelayedServer();
  DelayedServer(DelayedServer const&) = delete;
  DelayedServer& operator=(DelayedServer const&) = delete;

  std::string const& directory() const { return directory_; }

 private:
  std::string directory_;
  pid_t proxy_ = 0;
};

}  // namespace bench

#endif
