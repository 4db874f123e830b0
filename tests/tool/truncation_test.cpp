// A data file that another program truncates while the tool reads it.

#include "base/truncation.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>

#include "base/failure.h"
#include "run_tool.h"

namespace tool_test {
namespace {

constexpr int kFileLost = static_cast<int>(tool::Exit::kFileLost);
constexpr std::size_t kPage = 4096;

class TruncationTest : public ToolTest {
 protected:
  // The second of two pages of a file, mapped.
  char const* MapFile(std::string const& path) const {
    int const file = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    void* const map = mmap(nullptr, 2 * kPage, PROT_READ, MAP_SHARED, file, 0);
    close(file);
    return static_cast<char const*>(map) + kPage;
  }
};

using TruncationDeathTest = TruncationTest;

TEST_F(TruncationTest, FileTruncatedInATransaction_EndsTheCommandWithItsName) {
  Create();
  Apply(kLibrary);
  std::string rows = "Name\n";
  for (int i = 0; i < 2000; ++i) rows += "Person " + std::to_string(i) + "\n";
  On("import", {"Person", "-"}, 0, rows);
  Terminal terminal({"shell", database()});
  terminal.Type("begin\ncount Film\n");
  terminal.Until("\r\n0\r\n");
  std::filesystem::resize_file(database() + "/data.mdb", 2 * kPage);
  terminal.Type("scan Person\n");
  Result const result = terminal.Finish();
  EXPECT_EQ(kFileLost, result.status);
  EXPECT_NE(std::string::npos,
            result.out.find("sagleme: " + database() + "/data.mdb was truncated while it was open"))
      << result.out;
  Result const after = RunTool({"info", database()});
  EXPECT_EQ(static_cast<int>(tool::Exit::kCannotOpen), after.status) << after.err;
}

TEST_F(TruncationDeathTest, AnyMappedFile_IsNamed) {
  std::string const path = Write("a file with blanks", std::string(2 * kPage, 'x'));
  char const* const page = MapFile(path);
  EXPECT_EXIT(
      {
        tool::ReportTruncatedFiles();
        std::filesystem::resize_file(path, kPage);
        static_cast<void>(*static_cast<char const volatile*>(page));
      },
      testing::ExitedWithCode(kFileLost), path + " was truncated while it was open");
}

TEST_F(TruncationDeathTest, SignalOfAnotherProcess_EndsTheCommandAsBefore) {
  EXPECT_EXIT(
      {
        tool::ReportTruncatedFiles();
        std::raise(SIGBUS);
      },
      testing::KilledBySignal(SIGBUS), "^$");
}

}  // namespace
}  // namespace tool_test
