#include <stdlib.h>

#include <filesystem>

#include "run_tool.h"

namespace tool_test {
namespace {

// With a program of the test's in the place of Python.
class StubsTest : public ToolTest {
 protected:
  void SetUp() override {
    Create();
    std::filesystem::create_directory(Path("programs"));
    setenv("PATH", Path("programs").c_str(), 1);
  }
  void TearDown() override { setenv("PATH", path_.c_str(), 1); }

  void MakePython(std::string const& script) const {
    std::string const file = Write("programs/python3", "#!/bin/sh\n" + script);
    std::filesystem::permissions(file, std::filesystem::perms::owner_all);
  }

 private:
  std::string const path_ = getenv("PATH");
};

TEST_F(StubsTest, PythonMissing_IsNamed) {
  EXPECT_EQ(
      "sagleme: there is no python3\n  Install Python 3.11 or later and its package sagleme.\n",
      On("stubs", {}, 4).err);
}

TEST_F(StubsTest, PackageMissing_IsNamed) {
  MakePython("exit 77\n");
  EXPECT_EQ("sagleme: python3 has no package sagleme\n  Install it; docs/python.md says how.\n",
            On("stubs", {}, 4).err);
}

TEST_F(StubsTest, WhatPythonWrites_IsTheOutput) {
  MakePython("for last in \"$@\"; do :; done; echo \"class of $last\"\n");
  Result const result = On("stubs");
  EXPECT_EQ("class of " + database() + "\n", result.out);
  EXPECT_EQ("", result.err);
}

TEST_F(StubsTest, FailureOfPython_IsTheCommandsAndNothingIsWritten) {
  MakePython("echo class; echo refused >&2; exit 1\n");
  Result const refused = On("stubs", {}, 1);
  EXPECT_EQ("", refused.out);
  EXPECT_EQ("refused\n", refused.err);
  MakePython("echo class; kill -9 $$\n");
  Result const killed = On("stubs", {}, 4);
  EXPECT_EQ("", killed.out);
  EXPECT_EQ("sagleme: python3 was ended by signal 9\n", killed.err);
}

TEST_F(StubsTest, DatabaseMissing_IsReportedWithoutPython) {
  Result const result = RunTool({"stubs", Path("nowhere")});
  EXPECT_EQ(3, result.status) << result.err;
}

TEST_F(StubsTest, FullDevice_FailsTheCommand) {
  MakePython("echo class\n");
  EXPECT_EQ(4, RunToolInto("/dev/full", {"stubs", database()}).status);
}

TEST_F(StubsTest, OpenTransaction_Refuses) {
  MakePython("echo class\n");
  Result const result = On("shell", {}, 4, "begin\nstubs\n");
  EXPECT_NE(std::string::npos, result.err.find("stubs")) << result.err;
  EXPECT_EQ(std::string::npos, result.out.find("class")) << result.out;
}

}  // namespace
}  // namespace tool_test
