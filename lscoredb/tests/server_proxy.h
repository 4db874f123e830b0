#ifndef LSCOREDB_TESTS_SERVER_PROXY_H
#define LSCOREDB_TESTS_SERVER_PROXY_H

// A proxy between clients and a PostgreSQL server on a socket of this machine: counts round trips,
// delays them, and cuts connections where a test wants it or at random.

#include <atomic>
#include <chrono>
#include <cstdint>
#include <list>
#include <mutex>
#include <set>
#include <string>
#include <string_view>
#include <thread>

namespace lscoredb_test {

enum class Cut : std::uint8_t {
  kNever,
  kBeforeCommit,  // the server does not get to see the commit
  kAfterCommit,   // the client does not get to see the reply
  kAndFreeze,     // nor does it see any other until Thaw
  kAndClose,      // nor does anybody get through afterwards
  kBeforeAndClose,
};

// What a proxy does to every request.
struct Weather {
  std::chrono::microseconds delay{0};  // before it is passed on
  unsigned cuts_one_in = 0;            // requests; before or after the server has seen it
};

class ServerProxy {
 public:
  // `server`: the directory of the server's socket. The proxy's own lies in `directory`.
  ServerProxy(std::string server, std::string const& directory, Weather weather = {});
  ~ServerProxy();
  ServerProxy(ServerProxy const&) = delete;
  ServerProxy& operator=(ServerProxy const&) = delete;

  // What becomes of the next commit. From then on the proxy cuts nothing.
  void CutNext(Cut cut) { cut_ = cut; }
  bool has_cut() const { return cut_ == Cut::kNever; }
  // From now on nobody gets through; those who are connected are cut off.
  void Close();
  void Open() { closed_ = false; }
  // From now on nothing gets through, and nobody notices, until Thaw.
  void Freeze() { frozen_ = true; }
  void Thaw() { frozen_ = false; }
  bool frozen() const { return frozen_; }
  // Times that clients said something and got an answer.
  std::uint64_t round_trips() const { return round_trips_; }
  // Requests that were cut at random.
  std::uint64_t cuts() const { return cuts_; }

 private:
  struct Served {
    std::atomic<bool> over{false};
    std::thread thread;
  };

  void Accept();
  void Serve(int client);
  void ForgetTheServed();
  Cut CutNow(std::string_view said);
  bool Pass(int from, int to, bool from_client, bool* asked);
  void Forget(int file);

  std::string const server_;
  Weather const weather_;
  int listener_ = -1;
  std::atomic<bool> over_{false};
  std::atomic<bool> closed_{false};
  std::atomic<bool> frozen_{false};
  std::atomic<Cut> cut_{Cut::kNever};
  std::atomic<std::uint64_t> round_trips_{0};
  std::mutex mutex_;
  std::set<int> files_;  // of connections
  std::list<Served> served_;
  std::atomic<std::uint64_t> cuts_{0};
  std::thread accepting_;
};

}  // namespace lscoredb_test

#endif
