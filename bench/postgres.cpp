#include "postgres.h"

#include <fcntl.h>
#include <glob.h>
#include <grp.h>
#include <pwd.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <stdexcept>
#include <thread>
#include <vector>

namespace bench {
namespace {

constexpr char kUser[] = "bench";
constexpr char kDatabase[] = "postgres";  // the one that every cluster has

// The newest version's, where Debian puts them.
std::string FindPrograms() {
  glob_t found{};
  std::string programs;
  if (glob("/usr/lib/postgresql/*/bin", 0, nullptr, &found) == 0 && found.gl_pathc > 0) {
    programs = found.gl_pathv[found.gl_pathc - 1];
  }
  globfree(&found);
  if (programs.empty()) throw std::runtime_error("PostgreSQL is not installed");
  return programs;
}

passwd const& ServerUser() {
  passwd const* const user = getpwnam("postgres");
  if (user == nullptr) throw std::runtime_error("there is no user postgres to run PostgreSQL as");
  return *user;
}

// In a child. A server goes with the process that started it: SIGQUIT ends it at once.
[[noreturn]] void Become(std::vector<std::string> const& command, std::string const& log) {
  std::vector<char*> arguments;
  for (std::string const& word : command) arguments.push_back(const_cast<char*>(word.c_str()));
  arguments.push_back(nullptr);
  int const out = open(log.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
  dup2(out, STDOUT_FILENO);
  dup2(out, STDERR_FILENO);
  if (geteuid() == 0) {
    passwd const& user = ServerUser();
    bool const changed = initgroups(user.pw_name, user.pw_gid) == 0 && setgid(user.pw_gid) == 0 &&
                         setuid(user.pw_uid) == 0;
    if (!changed) _exit(126);
  }
  prctl(PR_SET_PDEATHSIG, SIGQUIT);
  execv(arguments[0], arguments.data());
  _exit(127);
}

pid_t StartProgram(std::vector<std::string> const& command, std::string const& log) {
  pid_t const child = fork();
  if (child < 0) throw std::runtime_error("no process");
  if (child == 0) Become(command, log);
  return child;
}

bool Succeeded(pid_t child) {
  int state = 0;
  waitpid(child, &state, 0);
  return WIFEXITED(state) && WEXITSTATUS(state) == 0;
}

// Numbers travel with the highest byte first.
std::string Number32(std::uint32_t number) {
  std::string bytes;
  for (int shift = 24; shift >= 0; shift -= 8) bytes.push_back(static_cast<char>(number >> shift));
  return bytes;
}

std::string Message(std::string const& body) {
  return Number32(static_cast<std::uint32_t>(body.size() + 4)) + body;
}

std::string Terminated(std::string const& text) { return text + '\0'; }

std::string ReadExactly(int file, std::size_t size) {
  std::string bytes(size, '\0');
  for (std::size_t done = 0; done < size;) {
    ssize_t const got = read(file, bytes.data() + done, size - done);
    if (got <= 0) throw std::runtime_error("PostgreSQL does not answer");
    done += static_cast<std::size_t>(got);
  }
  return bytes;
}

// Of an error's fields the text for people.
std::string TextOfError(std::string const& body) {
  for (std::size_t at = 0; at < body.size() && body[at] != '\0';) {
    std::string const field = body.c_str() + at + 1;
    if (body[at] == 'M') return field;
    at += field.size() + 2;
  }
  return "no text";
}

}  // namespace

// ---- the cluster --------------------------------------------------------------------------------

PostgresCluster::PostgresCluster(std::string directory)
    : directory_(std::filesystem::absolute(directory)), programs_(FindPrograms()) {
  std::filesystem::remove_all(directory_ + "/data");  // of a run that was killed
  if (geteuid() == 0) {
    passwd const& user = ServerUser();
    if (chown(directory_.c_str(), user.pw_uid, user.pw_gid) != 0) {
      throw std::runtime_error("the directory cannot be given to the user postgres");
    }
  }
  std::string const log = directory_ + "/initdb.log";
  bool const made =
      Succeeded(StartProgram({Program("initdb"), "--pgdata", directory_ + "/data", "--username",
                              kUser, "--auth", "trust", "--no-locale", "--no-sync"},
                             log));
  if (!made) throw std::runtime_error("PostgreSQL cannot make a cluster, see " + log);
}

PostgresCluster::~PostgresCluster() {
  std::error_code ignored;
  std::filesystem::remove_all(directory_, ignored);
}

// ---- the server ---------------------------------------------------------------------------------

PostgresServer::PostgresServer(PostgresCluster const& cluster, bool sync)
    : server_(
          StartProgram({cluster.Program("postgres"), "-D", cluster.directory() + "/data", "-k",
                        cluster.directory(), "-c", "listen_addresses=", "-c", "max_connections=300",
                        "-c", std::string("fsync=") + (sync ? "on" : "off")},
                       cluster.directory() + "/server.log")) {
  Connect(cluster.directory());
}

PostgresServer::~PostgresServer() {
  if (socket_ >= 0) close(socket_);
  kill(server_, SIGINT);
  waitpid(server_, nullptr, 0);
}

// The server says by nothing but its answers when it is up.
void PostgresServer::Connect(std::string const& directory) {
  constexpr int kAttempts = 1500;
  for (int attempt = 0; attempt < kAttempts; ++attempt) {
    if (waitpid(server_, nullptr, WNOHANG) != 0) break;
    if (TryConnect(directory)) return;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  kill(server_, SIGQUIT);
  waitpid(server_, nullptr, 0);
  throw std::runtime_error("PostgreSQL does not start");
}

// Through the open directory: a socket's path must be short.
bool PostgresServer::TryConnect(std::string const& directory) {
  int const directory_file = open(directory.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::string const path = "/proc/self/fd/" + std::to_string(directory_file) + "/.s.PGSQL.5432";
  std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
  socket_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  int const failed = connect(socket_, reinterpret_cast<sockaddr const*>(&address), sizeof address);
  close(directory_file);
  try {
    if (failed != 0) throw std::runtime_error("no server yet");
    Send(Message(Number32(3 << 16) + Terminated("user") + Terminated(kUser) +
                 Terminated("database") + Terminated(kDatabase) + '\0'));
    AwaitReady();
    return true;
  } catch (std::runtime_error const&) {
    close(socket_);
    socket_ = -1;
    return false;
  }
}

void PostgresServer::Send(std::string const& message) {
  if (send(socket_, message.data(), message.size(), MSG_NOSIGNAL) !=
      static_cast<ssize_t>(message.size())) {
    throw std::runtime_error("PostgreSQL takes nothing");
  }
}

std::pair<char, std::string> PostgresServer::Receive() {
  std::string const head = ReadExactly(socket_, 5);
  std::uint32_t size = 0;
  for (char const byte : head.substr(1)) size = size << 8 | static_cast<unsigned char>(byte);
  return {head[0], ReadExactly(socket_, size - 4)};
}

void PostgresServer::AwaitReady() {
  constexpr char kError = 'E';
  constexpr char kReady = 'Z';
  std::string error;
  for (;;) {
    auto const [kind, body] = Receive();
    if (kind == kError) error = TextOfError(body);
    if (kind == kReady) break;
  }
  if (!error.empty()) throw std::runtime_error("PostgreSQL: " + error);
}

void PostgresServer::Run(std::string const& statement) {
  Send('Q' + Message(Terminated(statement)));
  AwaitReady();
}

}  // namespace bench
