// What is said when a database cannot be opened.

#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sagleme/check.hpp>
#include <sagleme/host.hpp>

namespace {

using namespace sagleme;

class OpeningTest : public testing::Test {
 protected:
  OpeningTest() {
    std::string pattern =
        (std::filesystem::temp_directory_path() / "sagleme-opening-XXXXXX").string();
    path_ = mkdtemp(pattern.data());
  }
  ~OpeningTest() override { std::filesystem::remove_all(path_); }

  std::string Path(std::string const& name) const { return path_ + "/" + name; }
  // Status and text of what opening throws.
  static std::string Refusal(std::string const& directory) {
    try {
      Database::Open(directory);
    } catch (Error const& error) {
      return std::to_string(error.status()) + " " + error.what();
    }
    return "opened";
  }

  std::string path_;
};

TEST_F(OpeningTest, MissingDatabase_IsReported) {
  EXPECT_EQ(std::to_string(LSCOREDB_NOT_A_DATABASE) + " There is no database in " + Path("d") + ".",
            Refusal(Path("d")));
}

TEST_F(OpeningTest, FileThatTheSystemRefuses_IsNamedWithTheReason) {
  { Database const made = Database::Create(Path("d")); }
  std::filesystem::remove(Path("d/layouts.lock"));
  std::filesystem::create_directory(Path("d/layouts.lock"));
  std::string const text = "Cannot open " + Path("d/layouts.lock") + ": Is a directory";
  EXPECT_EQ(std::to_string(LSCOREDB_CANNOT_OPEN) + " " + text, Refusal(Path("d")));
  try {
    CheckDatabase(Path("d"), {}, [](Finding const&) {});
    ADD_FAILURE() << "it was opened";
  } catch (Error const& error) {
    EXPECT_EQ(text, error.what());
  }
}

TEST_F(OpeningTest, FileThatIsNoDatabase_IsReportedByItsDirectory) {
  std::filesystem::create_directory(Path("d"));
  std::ofstream(Path("d/data.mdb")) << std::string(20000, 'x');
  EXPECT_EQ(std::to_string(LSCOREDB_NOT_A_DATABASE) + " Cannot open the database in " + Path("d") +
                ": " + lscoredb_status_text(LSCOREDB_NOT_A_DATABASE),
            Refusal(Path("d")));
}

TEST_F(OpeningTest, DirectoryThatMayNotBeEntered_IsNamed) {
  if (geteuid() != 0) {
    { Database const made = Database::Create(Path("d")); }
    ASSERT_EQ(0, chmod(Path("d").c_str(), 0));
    EXPECT_EQ(std::to_string(LSCOREDB_CANNOT_OPEN) + " Cannot open " + Path("d/data.mdb") +
                  ": Permission denied",
              Refusal(Path("d")));
    EXPECT_FALSE(Database::ExistsIn(Path("d")));
    ASSERT_EQ(0, chmod(Path("d").c_str(), 0700));
    return;
  }
  // The superuser may enter everything, so somebody else tries.
  { Database const made = Database::Create(Path("d")); }
  ASSERT_EQ(0, chmod(path_.c_str(), 0755));
  ASSERT_EQ(0, chmod(Path("d").c_str(), 0700));
  std::string const expected = std::to_string(LSCOREDB_CANNOT_OPEN) + " Cannot open " +
                               Path("d/data.mdb") + ": Permission denied";
  pid_t const child = fork();
  if (child == 0) {
    constexpr uid_t kNobody = 65534;
    if (setuid(kNobody) != 0) _exit(2);
    _exit(Refusal(Path("d")) == expected && !Database::ExistsIn(Path("d")) ? 0 : 1);
  }
  int status = 0;
  waitpid(child, &status, 0);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
}

}  // namespace
