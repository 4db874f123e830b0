#include "server_proxy.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <cstring>
#include <random>
#include <stdexcept>
#include <string_view>

namespace lscoredb_test {
namespace {

// A batch ends by executing the statement of this name.
constexpr std::string_view kCommit{"commit\0", 7};
constexpr std::string_view kTicket{"put_ticket\0", 11};  // also the end of a longer name
constexpr std::string_view kRollback{"rollback\0", 9};
constexpr std::string_view kBegin{"begin_"};
constexpr std::string_view kTerminate{"X\0\0\0\4", 5};
constexpr int kPatience = 50;  // milliseconds between looks at whether it is over
constexpr int kAnswerTime = 2000;

sockaddr_un AddressIn(std::string const& directory) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::string const path = directory + "/.s.PGSQL.5432";
  if (path.size() >= sizeof address.sun_path) throw std::runtime_error("too long a path");
  std::memcpy(address.sun_path, path.c_str(), path.size());
  return address;
}

int NewSocket() {
  int const file = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (file < 0) throw std::runtime_error("no socket");
  return file;
}

template <typename Call>
int Named(Call call, int file, sockaddr_un const& address) {
  return call(file, reinterpret_cast<sockaddr const*>(&address), sizeof address);
}

// The end of a transaction that wrote nothing, and the end of a connection, which may overtake the
// reply to the former: nobody waits for a reply.
bool IsPosted(std::string_view said) {
  if (said == kTerminate) return true;
  auto const has = [&](std::string_view name) { return said.find(name) != said.npos; };
  return (has(kCommit) || has(kRollback)) && !has(kTicket) && !has(kBegin);
}

bool SendAll(int file, char const* bytes, std::size_t size) {
  for (std::size_t sent = 0; sent < size;) {
    ssize_t const now = send(file, bytes + sent, size - sent, MSG_NOSIGNAL);
    if (now <= 0) return false;
    sent += static_cast<std::size_t>(now);
  }
  return true;
}

}  // namespace

ServerProxy::ServerProxy(std::string server, std::string const& directory, Weather weather)
    : server_(std::move(server)), weather_(weather), listener_(NewSocket()) {
  if (Named(bind, listener_, AddressIn(directory)) != 0 || listen(listener_, 64) != 0) {
    throw std::runtime_error("the proxy cannot listen");
  }
  accepting_ = std::thread([this] { Accept(); });
}

ServerProxy::~ServerProxy() {
  over_ = true;
  Close();
  accepting_.join();
  for (Served& one : served_) one.thread.join();
  close(listener_);
}

void ServerProxy::Close() {
  closed_ = true;
  std::lock_guard const lock(mutex_);
  for (int const file : files_) shutdown(file, SHUT_RDWR);
}

void ServerProxy::Accept() {
  while (!over_) {
    pollfd waiting{listener_, POLLIN, 0};
    if (poll(&waiting, 1, kPatience) <= 0) continue;
    int const client = accept(listener_, nullptr, nullptr);
    if (client < 0) continue;
    if (closed_) {
      close(client);
    } else {
      ForgetTheServed();
      Served& one = served_.emplace_back();
      one.thread = std::thread([this, client, &one] {
        Serve(client);
        one.over = true;
      });
    }
  }
}

// Each thread keeps its stack until it is joined.
void ServerProxy::ForgetTheServed() {
  served_.remove_if([](Served& one) {
    bool const over = one.over;
    if (over) one.thread.join();
    return over;
  });
}

void ServerProxy::Forget(int file) {
  std::lock_guard const lock(mutex_);
  files_.erase(file);
  close(file);
}

void ServerProxy::Serve(int client) {
  int const server = NewSocket();
  bool going = Named(connect, server, AddressIn(server_)) == 0;
  {
    std::lock_guard const lock(mutex_);
    files_.insert({client, server});
  }
  bool asked = false;
  while (going && !over_ && !closed_) {
    if (frozen_) {
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
      continue;
    }
    std::array<pollfd, 2> ends{{{client, POLLIN, 0}, {server, POLLIN, 0}}};
    if (poll(ends.data(), ends.size(), kPatience) <= 0) continue;
    if (ends[0].revents != 0) going = Pass(client, server, true, &asked);
    if (going && ends[1].revents != 0) going = Pass(server, client, false, &asked);
  }
  Forget(client);
  Forget(server);
}

// What becomes of a client's request.
Cut ServerProxy::CutNow(std::string_view said) {
  thread_local std::minstd_rand random{std::random_device()()};
  if (weather_.cuts_one_in != 0 && random() % weather_.cuts_one_in == 0) {
    ++cuts_;
    return random() % 2 == 0 ? Cut::kBeforeCommit : Cut::kAfterCommit;
  }
  bool const commits = said.find(kTicket) != said.npos && said.find(kCommit) != said.npos;
  return commits ? cut_.exchange(Cut::kNever) : Cut::kNever;
}

// Returns whether the connection goes on. All that a batch says last comes in one piece here, since
// the tests' batches are small.
bool ServerProxy::Pass(int from, int to, bool from_client, bool* asked) {
  std::array<char, 65536> bytes;
  ssize_t const size = recv(from, bytes.data(), bytes.size(), 0);
  if (size <= 0) return false;
  std::string_view const said(bytes.data(), static_cast<std::size_t>(size));
  Cut const cut = from_client ? CutNow(said) : Cut::kNever;
  if (cut == Cut::kBeforeAndClose) Close();
  if (cut == Cut::kBeforeCommit || cut == Cut::kBeforeAndClose) return false;
  if (!from_client && *asked) ++round_trips_;
  *asked = from_client && !IsPosted(said);
  if (from_client) std::this_thread::sleep_for(weather_.delay);
  if (!SendAll(to, said.data(), said.size())) return false;
  if (cut == Cut::kAndFreeze) Freeze();
  if (cut == Cut::kNever || cut == Cut::kAndFreeze) return true;
  // The server has done it when it answers; what was a part of a request it does not answer.
  pollfd answer{to, POLLIN, 0};
  poll(&answer, 1, kAnswerTime);
  if (cut == Cut::kAndClose) Close();
  return false;
}

}  // namespace lscoredb_test
