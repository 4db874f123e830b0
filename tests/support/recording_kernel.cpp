#include "support/recording_kernel.h"

#include <dlfcn.h>

#include <cstdio>
#include <cstdlib>
#include <mutex>

#include "support/recording_kernel_internal.h"

namespace recording_kernel {
namespace {

struct Choice {
  std::string function;  // empty: any function that can fail
  int remaining = 0;     // calls until the one to fail; 0: none is chosen
  uint32_t status = 0;
};

struct State {
  std::mutex mutex;
  bool recording = false;
  bool failed = false;
  int open_iterators = 0;
  Choice choice;
  std::vector<Call> calls;
  std::vector<std::function<void()>> on_reset;
};

State& TheState() {
  static State state;
  return state;
}

bool IsConversion(std::string const& function) { return function.starts_with("lorv_convert_"); }

bool Counts(Choice const& choice, std::string const& function) {
  if (!choice.function.empty()) return choice.function == function;
  return !IsConversion(function) && function != "lorv_iterator_free";
}

void Choose(Choice choice) {
  State& state = TheState();
  std::lock_guard const lock(state.mutex);
  state.choice = std::move(choice);
  state.failed = false;
}

void CountIterators(State& state, Call const& call) {
  if (call.status != 0) return;
  if (call.function == "lorv_context_create_iterator") ++state.open_iterators;
  if (call.function == "lorv_iterator_free") --state.open_iterators;
}

// The place behind the text field at `at`.
uint8_t const* SkipText(uint8_t const* at) {
  constexpr uint8_t kTextEnd = 0x80;
  at += 1 + (*at & 0x1F);
  while (*at != kTextEnd) at += 1 + *at;
  return at + 1;
}

// 0x28 opens an integer and a text of eight bytes. Behind nine bytes the text ends, and no field
// begins like that.
uint8_t const* SkipField(uint8_t const* at) {
  constexpr uint8_t kNull = 0x60;
  constexpr uint8_t kInteger = 0x28;
  if (*at == kNull) return at + 1;
  if (*at == kInteger && at[9] != 0x80) return at + 9;
  return SkipText(at);
}

}  // namespace

bool ChosenToFail(Call& call) {
  State& state = TheState();
  std::lock_guard const lock(state.mutex);
  if (state.choice.remaining == 0 || !Counts(state.choice, call.function)) return false;
  if (--state.choice.remaining > 0) return false;
  state.failed = true;
  call.status = state.choice.status;
  return true;
}

void Keep(Call&& call) {
  State& state = TheState();
  std::lock_guard const lock(state.mutex);
  CountIterators(state, call);
  if (state.recording) state.calls.push_back(std::move(call));
}

void* Behind(char const* function) {
  void* const found = dlsym(RTLD_NEXT, function);
  if (found != nullptr) return found;
  std::fprintf(stderr, "no kernel behind the stand-in has %s\n", function);
  std::abort();
}

void Reset() {
  State& state = TheState();
  std::lock_guard const lock(state.mutex);
  for (auto const& action : state.on_reset) action();
  state.on_reset.clear();
  state.calls.clear();
  state.choice = Choice();
  state.recording = false;
  state.failed = false;
  state.open_iterators = 0;
}

void OnReset(std::function<void()> action) {
  State& state = TheState();
  std::lock_guard const lock(state.mutex);
  state.on_reset.push_back(std::move(action));
}

void Record() {
  State& state = TheState();
  std::lock_guard const lock(state.mutex);
  state.calls.clear();
  state.recording = true;
}

std::vector<Call> const& Calls() { return TheState().calls; }

std::vector<Call> CallsOf(std::string const& function) {
  std::vector<Call> found;
  for (Call const& call : Calls())
    if (call.function == function) found.push_back(call);
  return found;
}

std::vector<std::string> Names() {
  std::vector<std::string> names;
  for (Call const& call : Calls())
    if (!IsConversion(call.function)) names.push_back(call.function);
  return names;
}

void FailNth(int nth, uint32_t status) { Choose({"", nth, status}); }

void FailNthOf(std::string const& function, int nth, uint32_t status) {
  Choose({function, nth, status});
}

bool Failed() { return TheState().failed; }

int OpenIterators() { return TheState().open_iterators; }

Bytes KeyBytes(void const* key) {
  constexpr uint8_t kKeyEnd = 0xC0;
  auto const* const begin = static_cast<uint8_t const*>(key);
  uint8_t const* at = begin;
  while (*at != kKeyEnd) at = SkipField(at);
  std::size_t const used = static_cast<std::size_t>(at - begin) + 1;
  return Bytes(begin, begin + (used + 7) / 8 * 8);
}

std::string Hex(Bytes const& bytes) {
  std::string text;
  for (uint8_t const byte : bytes) {
    char digits[4];
    std::snprintf(digits, sizeof digits, "%02X ", static_cast<unsigned>(byte));
    text += digits;
  }
  if (!text.empty()) text.pop_back();
  return text;
}

}  // namespace recording_kernel
