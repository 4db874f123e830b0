#ifndef SAGLEME_TESTS_SUPPORT_RECORDING_KERNEL_H
#define SAGLEME_TESTS_SUPPORT_RECORDING_KERNEL_H

// A stand-in for the kernel: every function of the contract, defined in the test executable, so
// that the layer's calls come here first.
//
// It notes each call while recording is on, and then, in this order: refuses it when it is the one
// that was chosen to fail, answers it by a script of the test, or hands it to the kernel that the
// executable is linked with. Process-wide; a test begins with Reset. Any thread may call.

#include <lscoredb/lscoredb.h>

#include <cstdint>
#include <functional>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

namespace recording_kernel {

using Bytes = std::vector<uint8_t>;

struct Call {
  std::string function;
  std::vector<uint64_t> numbers;                 // integer arguments in order, the context first
  std::vector<std::u16string> texts;             // text arguments; a null one is left out
  std::vector<Bytes> keys;                       // of an iterator: first and last, whole
  std::vector<LORVI_COLUMN_DEFINITION> columns;  // of a layout or an index, without the terminator
  uint32_t status = 0;                           // what the caller got
};

// Back to the state at process start: nothing noted, no script, no failure chosen.
void Reset();

// Forgets what was noted and begins to note.
void Record();
std::vector<Call> const& Calls();
// The calls of one function.
std::vector<Call> CallsOf(std::string const& function);
// The names of the noted calls in order, conversions of texts left out.
std::vector<std::string> Names();

// The `nth` call from now on, counted from 1, gets `status` and reaches no kernel. Conversions,
// which have no status, and lorv_iterator_free, which may not fail, do not count.
void FailNth(int nth, uint32_t status);
// The same, counting calls of one function only; lorv_iterator_free can be chosen here.
void FailNthOf(std::string const& function, int nth, uint32_t status);
// The chosen call was made, and refused.
bool Failed();

// Iterators that were created and not yet freed.
int OpenIterators();

// A contract key, from its first byte to the last byte of its padding.
Bytes KeyBytes(void const* key);
std::string Hex(Bytes const& bytes);

// ---- scripts ------------------------------------------------------------------------------------

template <auto Function>
std::function<std::remove_pointer_t<decltype(Function)>>& ScriptOf() {
  static std::function<std::remove_pointer_t<decltype(Function)>> script;
  return script;
}

void OnReset(std::function<void()> action);

// From now on calls of `Function` are answered by `script`: Answer<&lorv_iterator_next>([](...)
// {...}).
template <auto Function, typename Script>
void Answer(Script&& script) {
  ScriptOf<Function>() = std::forward<Script>(script);
  OnReset([] { ScriptOf<Function>() = nullptr; });
}

}  // namespace recording_kernel

#endif
