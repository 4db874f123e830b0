#include "jobs/runner.h"

#include <fmt/format.h>
#include <signal.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <charconv>
#include <fstream>
#include <mutex>
#include <random>
#include <set>
#include <vector>

namespace sagleme::jobs {
namespace {

std::mutex g_mutex;
std::set<std::string> g_live;  // tokens of this process's runs, and of those before a fork

enum Field { kBoot, kNamespace, kPid, kStart, kToken, kHost, kFields };

std::string FirstLineOf(std::string const& path) {
  std::ifstream file(path);
  std::string line;
  std::getline(file, line);
  return line;
}

std::string Boot() { return FirstLineOf("/proc/sys/kernel/random/boot_id"); }

// "pid:[4026531836]"
std::string PidNamespace() {
  std::array<char, 64> text{};
  ssize_t const length = readlink("/proc/self/ns/pid", text.data(), text.size());
  return length <= 0 ? "" : std::string(text.data(), static_cast<std::size_t>(length));
}

std::string Host() {
  std::array<char, 256> name{};
  if (gethostname(name.data(), name.size() - 1) != 0) return "";
  return name.data();
}

// In ticks since the boot: the 22nd field, the 20th behind the name, which may hold anything.
// Empty if there is no such process, or if it cannot be seen.
std::string StartOf(std::string const& pid) {
  std::string const line = FirstLineOf("/proc/" + pid + "/stat");
  std::size_t at = line.rfind(')');
  for (int i = 0; i < 20 && at != line.npos; ++i) at = line.find(' ', at + 1);
  if (at == line.npos) return "";
  return line.substr(at + 1, line.find(' ', at + 1) - at - 1);
}

std::string NewToken() {
  std::random_device random;
  return fmt::format("{:08x}{:08x}", random(), random());
}

std::vector<std::string> FieldsOf(std::string const& runner) {
  std::vector<std::string> fields;
  std::size_t begin = 0;
  for (std::size_t at = runner.find('/'); at != runner.npos; at = runner.find('/', begin)) {
    fields.push_back(runner.substr(begin, at - begin));
    begin = at + 1;
  }
  fields.push_back(runner.substr(begin));
  fields.resize(kFields);
  return fields;
}

bool IsLiveToken(std::string const& token) {
  std::lock_guard const lock(g_mutex);
  return g_live.contains(token);
}

bool HasProcess(std::string const& pid) {
  pid_t number = 0;
  std::from_chars(pid.data(), pid.data() + pid.size(), number);
  return number > 0 && (kill(number, 0) == 0 || errno == EPERM);
}

bool IsSeenFromHere(std::vector<std::string> const& fields) {
  return !fields[kBoot].empty() && fields[kNamespace] == PidNamespace();
}

}  // namespace

Runner::Runner() : token_(NewToken()) {
  std::string const pid = std::to_string(getpid());
  text_ =
      fmt::format("{}/{}/{}/{}/{}/{}", Boot(), PidNamespace(), pid, StartOf(pid), token_, Host());
  std::lock_guard const lock(g_mutex);
  g_live.insert(token_);
}

Runner::~Runner() {
  std::lock_guard const lock(g_mutex);
  g_live.erase(token_);
}

// A machine that has booted since has none of the processes of before.
Life LifeOf(std::string const& runner) {
  if (runner.empty()) return Life::kEnded;
  std::vector<std::string> const fields = FieldsOf(runner);
  if (fields[kBoot] != Boot()) {
    return fields[kHost] == Host() && IsSeenFromHere(fields) ? Life::kEnded : Life::kUnknown;
  }
  if (!IsSeenFromHere(fields)) return Life::kUnknown;
  if (fields[kPid] == std::to_string(getpid())) {
    return IsLiveToken(fields[kToken]) ? Life::kLive : Life::kEnded;
  }
  if (!HasProcess(fields[kPid])) return Life::kEnded;
  std::string const start = StartOf(fields[kPid]);
  return start.empty() || start == fields[kStart] ? Life::kLive : Life::kEnded;
}

std::string DescribeRunner(std::string const& runner) {
  if (runner.empty()) return "";
  std::vector<std::string> const fields = FieldsOf(runner);
  if (LifeOf(runner) != Life::kUnknown) return "process " + fields[kPid];
  return fmt::format("process {} on {}", fields[kPid], fields[kHost]);
}

}  // namespace sagleme::jobs
