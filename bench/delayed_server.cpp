#include "delayed_server.h"

#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <exception>
#include <filesystem>
#include <iostream>
#include <stdexcept>
#include <thread>
#include <utility>

#include "server_proxy.h"

namespace bench {
namespace {

std::string SocketIn(std::string const& directory) { return directory + "/.s.PGSQL.5432"; }

[[noreturn]] void Serve(std::string const& server, std::string const& directory,
                        std::chrono::milliseconds delay) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  try {
    lscoredb_test::ServerProxy const proxy(server, directory, {delay, 0});
    for (;;) pause();
  } catch (std::exception const& error) {
    std::cerr << "proxy: " << error.what() << std::endl;
    _exit(1);
  }
}

}  // namespace

DelayedServer::DelayedServer(std::string const& server, std::string directory,
                             std::chrono::milliseconds delay)
    : directory_(std::filesystem::absolute(directory)) {
  std::filesystem::remove(SocketIn(directory_));  // of a run that was killed
  proxy_ = fork();
  if (proxy_ < 0) throw std::runtime_error("no process for a proxy");
  if (proxy_ == 0) Serve(server, directory_, delay);
  while (!std::filesystem::exists(SocketIn(directory_))) {
    if (waitpid(proxy_, nullptr, WNOHANG) != 0) throw std::runtime_error("no proxy");
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
}

DelayedServer::~DelayedServer() {
  kill(proxy_, SIGKILL);
  waitpid(proxy_, nullptr, 0);
}

}  // namespace bench
