#include "run_tool.h"

#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>

#include "postgres_url.h"

namespace tool_test {
namespace {

[[noreturn]] void Exec(Arguments const& arguments) {
  std::vector<char*> array;
  std::string program = SAGLEME_TOOL;
  array.push_back(program.data());
  std::vector<std::string> copies = arguments;
  for (std::string& each : copies) array.push_back(each.data());
  array.push_back(nullptr);
  execv(SAGLEME_TOOL, array.data());
  _exit(127);
}

int Status(int wait_status) {
  return WIFEXITED(wait_status) ? WEXITSTATUS(wait_status) : 128 + WTERMSIG(wait_status);
}

// What the tool does not read, because it has ended, is no reason for the test to end by SIGPIPE.
void WriteAll(int file, std::string const& text) {
  sigset_t pipe;
  sigset_t before;
  sigemptyset(&pipe);
  sigaddset(&pipe, SIGPIPE);
  pthread_sigmask(SIG_BLOCK, &pipe, &before);
  for (std::size_t at = 0; at < text.size();) {
    ssize_t const written = write(file, text.data() + at, text.size() - at);
    if (written <= 0) break;
    at += static_cast<std::size_t>(written);
  }
  timespec const now{};
  sigtimedwait(&pipe, nullptr, &now);
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

// False at the end.
bool ReadSome(int file, std::string& to) {
  char buffer[4096];
  ssize_t const count = read(file, buffer, sizeof buffer);
  if (count <= 0) return false;
  to.append(buffer, static_cast<std::size_t>(count));
  return true;
}

void ReadBoth(int out, int err, Result& result) {
  pollfd files[2] = {{out, POLLIN, 0}, {err, POLLIN, 0}};
  while (files[0].fd >= 0 || files[1].fd >= 0) {
    poll(files, 2, -1);
    if (files[0].revents != 0 && !ReadSome(out, result.out)) files[0].fd = -1;
    if (files[1].revents != 0 && !ReadSome(err, result.err)) files[1].fd = -1;
  }
}

}  // namespace

Result RunTool(Arguments const& arguments, std::string const& input) {
  int in[2];
  int out[2];
  int err[2];
  if (pipe(in) != 0 || pipe(out) != 0 || pipe(err) != 0) return {};
  pid_t const child = fork();
  if (child == 0) {
    dup2(in[0], STDIN_FILENO);
    dup2(out[1], STDOUT_FILENO);
    dup2(err[1], STDERR_FILENO);
    for (int const file : {in[0], in[1], out[0], out[1], err[0], err[1]}) close(file);
    Exec(arguments);
  }
  close(in[0]);
  close(out[1]);
  close(err[1]);
  WriteAll(in[1], input);
  close(in[1]);
  Result result;
  ReadBoth(out[0], err[0], result);
  close(out[0]);
  close(err[0]);
  result.status = WaitFor(child);
  return result;
}

void SkipWithoutTerminal(std::string const& why) {
  char const* const ci = std::getenv("CI");
  bool const must_run = ci != nullptr && *ci != '\0';
  std::fprintf(stderr, "%s: there is no pseudo-terminal: %s\n", must_run ? "failed" : "skipped",
               why.c_str());
  _exit(must_run ? 1 : kSkipped);
}

Terminal::Terminal(Arguments const& arguments, std::vector<std::string> const& environment) {
  winsize size{24, 80, 0, 0};
  child_ = forkpty(&master_, nullptr, nullptr, &size);
  if (child_ < 0) SkipWithoutTerminal(std::strerror(errno));
  if (child_ != 0) return;
  setenv("TERM", "xterm", 1);
  setenv("PAGER", "", 1);
  for (std::string const& each : environment) putenv(const_cast<char*>(each.c_str()));
  Exec(arguments);
}

Terminal::~Terminal() {
  if (child_ > 0) {
    kill(child_, SIGKILL);
    WaitFor(child_);
  }
  close(master_);
}

void Terminal::Type(std::string const& keys) const { WriteAll(master_, keys); }

std::string Terminal::Until(std::string const& text) {
  while (true) {
    auto const at = seen_.find(text);
    if (at != std::string::npos) {
      std::string const found = seen_.substr(0, at + text.size());
      seen_.erase(0, found.size());
      return found;
    }
    if (ReadSome(master_, seen_)) continue;
    ADD_FAILURE() << "the tool ended before it showed \"" << text << "\": " << seen_;
    return seen_;
  }
}

Result Terminal::Finish() {
  Result result;
  while (ReadSome(master_, seen_)) {
  }
  result.out = std::move(seen_);
  result.status = WaitFor(child_);
  child_ = -1;
  return result;
}

Result RunOnTerminal(Arguments const& arguments, std::string const& input,
                     std::vector<std::string> const& environment) {
  Terminal terminal(arguments, environment);
  terminal.Type(input);
  return terminal.Finish();
}

Result RunToolInto(std::string const& file, Arguments const& arguments) {
  int err[2];
  if (pipe(err) != 0) return {};
  pid_t const child = fork();
  if (child == 0) {
    dup2(open(file.c_str(), O_WRONLY), STDOUT_FILENO);
    dup2(err[1], STDERR_FILENO);
    for (int const each : {err[0], err[1]}) close(each);
    Exec(arguments);
  }
  close(err[1]);
  Result result;
  while (ReadSome(err[0], result.err)) {
  }
  close(err[0]);
  result.status = WaitFor(child);
  return result;
}

pid_t StartTool(Arguments const& arguments) {
  pid_t const child = fork();
  if (child != 0) return child;
  int const nowhere = open("/dev/null", O_RDWR);
  for (int const file : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) dup2(nowhere, file);
  Exec(arguments);
}

int WaitFor(pid_t process) {
  int status = 0;
  waitpid(process, &status, 0);
  return Status(status);
}

Background::Background(Arguments const& arguments)
    : output_(memfd_create("output", MFD_CLOEXEC)), process_(fork()) {
  if (process_ != 0) return;
  dup2(open("/dev/null", O_RDONLY), STDIN_FILENO);
  for (int const file : {STDOUT_FILENO, STDERR_FILENO}) dup2(output_, file);
  Exec(arguments);
}

Background::~Background() {
  if (!ended_) {
    Kill();
    Finish();
  }
  close(output_);
}

bool Background::Until(std::function<bool()> const& there) {
  for (bool ended = false; !there(); ended = HasEnded()) {
    if (!ended) continue;
    ADD_FAILURE() << "the tool ended before, with status " << status_ << ": " << Output();
    return false;
  }
  return true;
}

void Background::Kill() const { kill(process_, SIGKILL); }

int Background::Finish() {
  if (!ended_) status_ = WaitFor(process_);
  ended_ = true;
  return status_;
}

bool Background::HasEnded() {
  int status = 0;
  if (ended_ || waitpid(process_, &status, WNOHANG) != process_) return ended_;
  status_ = Status(status);
  return ended_ = true;
}

std::string Background::Output() const {
  std::string text;
  lseek(output_, 0, SEEK_SET);
  while (ReadSome(output_, text)) {
  }
  return text;
}

std::string OutputOf(std::string const& command) {
  std::FILE* const pipe = popen(command.c_str(), "r");
  std::string text;
  char buffer[4096];
  for (std::size_t count; (count = fread(buffer, 1, sizeof buffer, pipe)) != 0;) {
    text.append(buffer, count);
  }
  pclose(pipe);
  return text;
}

std::string ReadText(std::string const& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

ToolTest::ToolTest() {
  std::string pattern = (std::filesystem::temp_directory_path() / "sagleme-tool-XXXXXX").string();
  directory_ = mkdtemp(pattern.data());
  database_ = lscore::RunsOnServer() ? lscore::NewServerUrl() : Path("db");
}

ToolTest::~ToolTest() { std::filesystem::remove_all(directory_); }

std::string ToolTest::Write(std::string const& name, std::string const& text) const {
  std::ofstream(Path(name), std::ios::binary) << text;
  return Path(name);
}

Result ToolTest::On(std::string const& command, Arguments const& rest, int status,
                    std::string const& input) const {
  Arguments arguments{command, database()};
  arguments.insert(arguments.end(), rest.begin(), rest.end());
  Result result = RunTool(arguments, input);
  EXPECT_EQ(status, result.status) << command << ": " << result.err << result.out;
  return result;
}

void ToolTest::Apply(std::string const& schema, Arguments const& rest, int status) const {
  Arguments arguments{Write("schema.json", schema)};
  arguments.insert(arguments.end(), rest.begin(), rest.end());
  On("apply", arguments, status);
}

char const* const kLibrary = R"({
  "schema": 1,
  "tables": [
    {"name": "App.Item",
     "columns": [
       {"name": "Title", "type": "string"},
       {"name": "Pages", "type": "long", "nullable": true},
       {"name": "Owner", "type": "reference", "target": "App.Person"}],
     "indexes": [
       {"name": "ItemByPages", "columns": [{"name": "Pages", "descending": true}]},
       {"name": "ItemByTitle", "unique": true, "columns": ["Title"]}]},
    {"name": "App.Book", "base": "App.Item",
     "columns": [
       {"name": "Isbn", "type": "ulong"},
       {"name": "Price", "type": "decimal"}]},
    {"name": "App.Film", "base": "App.Item",
     "columns": [
       {"name": "Rating", "type": "double"},
       {"name": "Poster", "type": "binary"},
       {"name": "Colour", "type": "bool"}]},
    {"name": "App.Person",
     "columns": [
       {"name": "Name", "type": "string"},
       {"name": "Height", "type": "float", "nullable": true}],
     "indexes": [
       {"name": "PersonByName", "unique": true, "columns": ["Name"]}]}]
}
)";

}  // namespace tool_test
