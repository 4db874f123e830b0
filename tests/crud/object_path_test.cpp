// The machine code of the object path, where an optimiser made it: what reads and writes a property
// must cost a jump into the kernel and no more. The library is looked at as it was built; how these
// tests are compiled does not matter. They are built where there is something to see.

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <sagleme/sagleme.h>

#include <array>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

namespace {

// What the code of a machine looks like: jumps out of a function, calls, what keeps registers in
// memory, and where the thread's own memory or a lock is used.
struct Machine {
  std::string jump;
  std::string call;
  std::string push;
  std::vector<std::string> forbidden;
};

#if defined(__x86_64__)
Machine const kMachine{"jmp", "call", "push", {"%fs:", "lock"}};
#elif defined(__aarch64__)
Machine const kMachine{"b", "bl", "stp", {"tpidr_el0", "ldax"}};
#endif

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

bool Calls(std::string const& instruction) {
  return Word(instruction).starts_with(kMachine.call) &&
         instruction.find("__stack_chk_fail") == std::string::npos;
}

// Up to the first jump: what follows it is padding.
std::vector<std::string> UpToJump(std::vector<std::string> instructions) {
  for (std::size_t i = 0; i < instructions.size(); ++i) {
    if (Word(instructions[i]) != kMachine.jump) continue;
    instructions.resize(i + 1);
    break;
  }
  return instructions;
}

// A function and where it jumps to.
struct Path {
  char const* function;
  char const* target;
};

class ObjectPathTest : public ::testing::TestWithParam<Path> {};

TEST_P(ObjectPathTest, Call_EndsInAJumpAndCallsNothing) {
  std::vector<std::string> const code = UpToJump(Instructions(GetParam().function));
  ASSERT_FALSE(code.empty()) << "nothing came from objdump, which is of the package binutils";
  EXPECT_EQ(kMachine.jump, Word(code.back())) << code.back();
  EXPECT_NE(std::string::npos, code.back().find(std::string("<") + GetParam().target + "@plt>"))
      << code.back();
  for (std::string const& instruction : code) {
    EXPECT_FALSE(Calls(instruction)) << instruction;
    EXPECT_FALSE(Word(instruction).starts_with(kMachine.push)) << instruction;
    for (std::string const& text : kMachine.forbidden) {
      EXPECT_EQ(std::string::npos, instruction.find(text)) << instruction;
    }
  }
  EXPECT_LE(code.size(), 16u);
}

INSTANTIATE_TEST_SUITE_P(
    Family, ObjectPathTest,
    ::testing::Values(Path{"lorv_crud_ReadBinary", "lorv_context_get_binary"},
                      Path{"lorv_crud_ReadDecimal", "lorv_context_get_decimal"},
                      Path{"lorv_crud_ReadDouble", "lorv_context_get_double"},
                      Path{"lorv_crud_ReadFloat", "lorv_context_get_float"},
                      Path{"lorv_crud_ReadLong", "lorv_context_get_long"},
                      Path{"lorv_crud_ReadULong", "lorv_context_get_ulong"},
                      Path{"lorv_crud_ReadBool", "lorv_meta_get_bool"},
                      Path{"lorv_crud_ReadRefId", "lorvi_context_get_refid"},
                      Path{"lorv_meta_get_bool", "lorv_context_get_ulong"},
                      Path{"lorv_crud_WriteBinary", "lorv_context_put_binary"},
                      Path{"lorv_crud_WriteDecimal", "lorv_context_put_decimal"},
                      Path{"lorv_crud_WriteDouble", "lorv_context_put_double"},
                      Path{"lorv_crud_WriteFloat", "lorv_context_put_float"},
                      Path{"lorv_crud_WriteLong", "lorv_context_put_long"},
                      Path{"lorv_crud_WriteULong", "lorv_context_put_ulong"},
                      Path{"lorv_crud_WriteBool", "lorv_meta_put_bool"},
                      Path{"lorv_crud_WriteDefault", "lorv_context_put_default"},
                      Path{"lorv_crud_WriteRef", "lorv_context_put_reference"},
                      Path{"lorv_crud_WriteString", "lorv_context_put_string"}),
    [](auto const& test) { return std::string(test.param.function).substr(5); });

// These work on what the kernel gave: one ends the text where it stands, one folds the reference.
// lorv_crud_ReadRefAndType, which looks a type up, is a function with a frame.
TEST(ObjectPathReadsTest, ReadsThatConvertTheirResult_CallTheKernelOnceAndNothingElse) {
  for (char const* const function : {"lorv_crud_ReadString", "lorv_crud_ReadRef"}) {
    int calls = 0;
    for (std::string const& instruction : Instructions(function)) calls += Calls(instruction);
    EXPECT_EQ(1, calls) << function;
  }
}

// A read that is none of these is to be named above, or to end in a jump.
TEST(ObjectPathReadsTest, EveryRead_IsOneOfThese) {
  std::string const command = "objdump -T '" + LibraryPath() + "' | grep -c ' lorv_crud_Read'";
  std::unique_ptr<std::FILE, PipeCloser> const pipe(popen(command.c_str(), "r"));
  int count = 0;
  ASSERT_EQ(1, std::fscanf(pipe.get(), "%d", &count));
  constexpr int kEndInAJump = 8;
  constexpr int kOthers = 3;
  EXPECT_EQ(kEndInAJump + kOthers, count);
}

}  // namespace
