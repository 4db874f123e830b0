// The machine code of the object path, where an optimiser made it: what reads and writes a property
// must cost a jump into the kernel and no more.

#if defined(__OPTIMIZE__) && !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <sagleme/sagleme.h>

#include <array>
#include <cstdio>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

namespace {

std::string LibraryPath() {
  Dl_info info{};
  EXPECT_NE(0, dladdr(reinterpret_cast<void*>(&lorv_crud_ReadLong), &info));
  return info.dli_fname;
}

struct PipeCloser {
  void operator()(std::FILE* pipe) const { pclose(pipe); }
};

// The instructions of a function of the library, one a line, without addresses.
std::vector<std::string> Instructions(std::string const& function) {
  std::string const command =
      "objdump -d --no-show-raw-insn --disassemble=" + function + " '" + LibraryPath() + "'";
  std::unique_ptr<std::FILE, PipeCloser> const pipe(popen(command.c_str(), "r"));
  std::vector<std::string> instructions;
  std::array<char, 512> line{};
  while (pipe != nullptr && std::fgets(line.data(), line.size(), pipe.get()) != nullptr) {
    std::string text = line.data();
    std::size_t const tab = text.find('\t');
    if (text.empty() || text.front() != ' ' || tab == std::string::npos) continue;
    text = text.substr(tab + 1);
    text.erase(text.find_last_not_of(" \n") + 1);
    instructions.push_back(text);
  }
  return instructions;
}

std::string Word(std::string const& instruction) {
  return instruction.substr(0, instruction.find_first_of(" \t"));
}

// Up to the first jump: what follows it is padding.
std::vector<std::string> UpToJump(std::vector<std::string> instructions) {
  for (std::size_t i = 0; i < instructions.size(); ++i) {
    if (Word(instructions[i]).starts_with("jmp")) {
      instructions.resize(i + 1);
      break;
    }
  }
  return instructions;
}

class ObjectPathTest : public ::testing::TestWithParam<char const*> {};

TEST_P(ObjectPathTest, EndsInAJumpAndCallsNothing) {
  std::vector<std::string> const code = UpToJump(Instructions(GetParam()));
  ASSERT_FALSE(code.empty());
  EXPECT_TRUE(Word(code.back()).starts_with("jmp")) << code.back();
  for (std::string const& instruction : code) {
    EXPECT_FALSE(Word(instruction).starts_with("call")) << instruction;
    EXPECT_FALSE(Word(instruction).starts_with("push")) << instruction;
    EXPECT_EQ(std::string::npos, instruction.find("%fs:")) << instruction;
    EXPECT_EQ(std::string::npos, instruction.find("lock")) << instruction;
  }
  EXPECT_LE(code.size(), 16u);
}

INSTANTIATE_TEST_SUITE_P(
    Family, ObjectPathTest,
    ::testing::Values("lorv_crud_ReadBinary", "lorv_crud_WriteBinary", "lorv_crud_ReadDecimal",
                      "lorv_crud_WriteDecimal", "lorv_crud_ReadDouble", "lorv_crud_WriteDouble",
                      "lorv_crud_ReadFloat", "lorv_crud_WriteFloat", "lorv_crud_ReadLong",
                      "lorv_crud_WriteLong", "lorv_crud_ReadULong", "lorv_crud_WriteULong",
                      "lorv_crud_ReadBool", "lorv_crud_WriteBool", "lorv_crud_WriteDefault",
                      "lorv_crud_ReadRefId", "lorv_crud_WriteRef", "lorv_crud_WriteString"),
    [](auto const& test) { return std::string(test.param).substr(10); });

TEST(ObjectPath, TwoReadsThatHandOutMemory_CallTheKernelOnce) {
  for (char const* const function : {"lorv_crud_ReadString", "lorv_crud_ReadRef"}) {
    int calls = 0;
    for (std::string const& instruction : Instructions(function)) {
      if (Word(instruction).starts_with("call") &&
          instruction.find("__stack_chk_fail") == std::string::npos) {
        ++calls;
      }
    }
    EXPECT_EQ(1, calls) << function;
  }
}

}  // namespace

#endif
