// Runs a fuzzer without a fuzzing engine: over the inputs of a folder, and then over a given number
// of changed ones. The same arguments give the same inputs everywhere.
//
//     replay_<fuzzer> folder count [seed]
//
// An input that ends the process is printed in hexadecimal; as bytes in the folder it is a test.

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>

#include "input.h"

extern "C" __attribute__((weak)) void __sanitizer_set_death_callback(void (*callback)());

namespace {

using Bytes = std::vector<std::uint8_t>;

constexpr std::size_t kMostBytes = 4096;

Bytes const* g_current = nullptr;

void PrintInput() {
  if (g_current == nullptr) return;
  std::fprintf(stderr, "input of %zu bytes: ", g_current->size());
  for (std::uint8_t const byte : *g_current) std::fprintf(stderr, "%02x", byte);
  std::fprintf(stderr, "\n");
  g_current = nullptr;
}

void OnSignal(int number) {
  PrintInput();
  std::signal(number, SIG_DFL);
  std::raise(number);
}

// Leaves memory faults to a sanitizer where there is one.
void ExpectDeath() {
  std::signal(SIGABRT, OnSignal);
  if (__sanitizer_set_death_callback != nullptr) {
    __sanitizer_set_death_callback(PrintInput);
    return;
  }
  for (int const number : {SIGSEGV, SIGBUS, SIGFPE, SIGILL}) std::signal(number, OnSignal);
}

std::vector<Bytes> Read(std::filesystem::path const& folder) {
  std::vector<std::filesystem::path> paths;
  for (auto const& entry : std::filesystem::directory_iterator(folder)) {
    paths.push_back(entry.path());
  }
  std::sort(paths.begin(), paths.end());
  std::vector<Bytes> inputs;
  for (auto const& path : paths) {
    std::ifstream file(path, std::ios::binary);
    inputs.emplace_back(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
  }
  return inputs;
}

class Mutator {
 public:
  Mutator(std::vector<Bytes> const& inputs, std::uint64_t seed) : inputs_(inputs), random_(seed) {}

  Bytes Next() {
    Bytes bytes = Any();
    for (std::size_t changes = 1 + Below(8); changes > 0; --changes) Change(bytes);
    bytes.resize(std::min(bytes.size(), kMostBytes));
    return bytes;
  }

 private:
  std::size_t Below(std::size_t end) { return random_() % end; }
  Bytes const& Any() { return inputs_[Below(inputs_.size())]; }
  std::uint8_t Byte() {
    constexpr std::uint8_t kTelling[] = {0x00, 0x01, 0x20, 0x28, 0x3F,
                                         0x60, 0x7F, 0x80, 0xC0, 0xFF};
    return Below(2) == 0 ? kTelling[Below(std::size(kTelling))]
                         : static_cast<std::uint8_t>(random_());
  }

  void Change(Bytes& bytes) {
    std::size_t const at = Below(bytes.size() + 1);
    auto const place = bytes.begin() + static_cast<std::ptrdiff_t>(at);
    std::size_t const rest = bytes.size() - at;
    switch (Below(rest == 0 ? 2 : 5)) {
      case 0:
        bytes.insert(place, Below(9), Byte());
        return;
      case 1:
        return Splice(bytes, at);
      case 2:
        *place = Byte();
        return;
      case 3:
        *place = static_cast<std::uint8_t>(*place ^ 1u << Below(8));
        return;
      default:
        bytes.erase(place,
                    place + static_cast<std::ptrdiff_t>(1 + Below(std::min(rest, std::size_t{8}))));
    }
  }

  void Splice(Bytes& bytes, std::size_t at) {
    Bytes const other = Any();
    std::size_t const from = Below(other.size() + 1);
    std::size_t const count = Below(other.size() - from + 1);
    auto const begin = other.begin() + static_cast<std::ptrdiff_t>(from);
    bytes.insert(bytes.begin() + static_cast<std::ptrdiff_t>(at), begin,
                 begin + static_cast<std::ptrdiff_t>(count));
  }

  std::vector<Bytes> const& inputs_;
  std::mt19937_64 random_;
};

void Run(Bytes const& input) {
  g_current = &input;
  LLVMFuzzerTestOneInput(input.data(), input.size());
  g_current = nullptr;
}

}  // namespace

int main(int count, char** arguments) {
  if (count < 3) return EXIT_FAILURE;
  ExpectDeath();
  std::vector<Bytes> const inputs = Read(arguments[1]);
  sagleme_fuzz::Require(!inputs.empty(), "the folder has no inputs");
  for (Bytes const& input : inputs) Run(input);
  unsigned long long const changed = std::strtoull(arguments[2], nullptr, 10);
  Mutator mutator(inputs, count > 3 ? std::strtoull(arguments[3], nullptr, 10) : 1);
  for (unsigned long long i = 0; i < changed; ++i) Run(mutator.Next());
  std::printf("%zu stored and %llu changed inputs\n", inputs.size(), changed);
  return EXIT_SUCCESS;
}
