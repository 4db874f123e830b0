#ifndef LSCOREDB_TESTS_SERVER_PROXY_H
#define LSCOREDB_TESTS_SERVER_PROXY_H

// Stands between clients and a PostgreSQL server on a socket of this machine: counts round trips
// and cuts connections where a test wants it.

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace lscoredb_test {

enum class Cut : std::uint8_t {
  kNever,
  kBeforeCommit,  // the server does not get to see the commit
  kAfterCommit,   // the client does not get to see the reply
  kAndClose,      // nor does anybody get through afterwards
  kBeforeAndClose,
};

class ServerProxy {
 public:
  // `server`: the directory of the server's socket. The proxy's own lies in `directory`.
  ServerProxy(std::string server, std::string const& directory);
  ~ServerProxy();
  ServerProxy(ServerProxy const&) = delete;
  ServerProxy& operator=(ServerProxy const&) = delete;

  // What becomes of the next commit. From then on the proxy cuts nothing.
  void CutNext(Cut cut) { cut_ = cut; }
  bool has_cut() const { return cut_ == Cut::kNever; }
  // From now on nobody gets through; those who are connected are cut off.
  void Close();
  void Open() { closed_ = false; }
  // Times that clients said something and got an answer.
  std::uint64_t round_trips() const { return round_trips_; }

 private:
  void Accept();
  void Serve(int client);
  bool Pass(int from, int to, bool from_client, bool* asked);
  void Forget(int file);

  std::string const server_;
  int listener_ = -1;
  std::atomic<bool> over_{false};
  std::atomic<bool> closed_{false};
  std::atomic<Cut> cut_{Cut::kNever};
  std::atomic<std::uint64_t> round_trips_{0};
  std::mutex mutex_;
  std::set<int> files_;  // of connections
  std::vector<std::thread> served_;
  std::thread accepting_;
};

}  // namespace lscoredb_test

#endif
