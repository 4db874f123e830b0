#ifndef SAGLEME_TESTS_SUPPORT_RECORDING_KERNEL_INTERNAL_H
#define SAGLEME_TESTS_SUPPORT_RECORDING_KERNEL_INTERNAL_H

// How a call passes through the stand-in; for the file of the contract's functions.

#include <concepts>

#include "support/recording_kernel.h"

namespace recording_kernel {

template <std::integral Number>
void Note(Call& call, Number value) {
  call.numbers.push_back(static_cast<uint64_t>(value));
}
inline void Note(Call& call, char16_t const* text) {
  if (text != nullptr) call.texts.emplace_back(text);
}
inline void Note(Call& call, LORVI_COLUMN_DEFINITION const* column) {
  for (; column->type != 0; ++column) call.columns.push_back(*column);
}
// Floating-point values, outputs and binaries are not noted.
template <typename Other>
requires(!std::integral<Other> && !std::convertible_to<Other, char16_t const*> &&
         !std::convertible_to<Other, LORVI_COLUMN_DEFINITION const*>) void Note(Call&,
                                                                                Other const&) {}

// True when the call is the one to fail; its status is set then.
bool ChosenToFail(Call& call);
// Puts a call and its outcome on the list, and keeps count of the iterators.
void Keep(Call&& call);
// The function of that name behind this executable.
void* Behind(char const* function);

template <auto Function, typename... Arguments>
uint32_t Forward(std::string const& name, Arguments... arguments) {
  static auto const real = reinterpret_cast<decltype(Function)>(Behind(name.c_str()));
  return real(arguments...);
}

template <auto Function, typename... Arguments>
uint32_t PassNoted(Call&& call, Arguments... arguments) {
  if (!ChosenToFail(call)) {
    auto const& script = ScriptOf<Function>();
    call.status = script ? script(arguments...) : Forward<Function>(call.function, arguments...);
  }
  uint32_t const status = call.status;
  Keep(std::move(call));
  return status;
}

template <auto Function, typename... Arguments>
uint32_t Pass(char const* name, Arguments... arguments) {
  Call call;
  call.function = name;
  (Note(call, arguments), ...);
  return PassNoted<Function>(std::move(call), arguments...);
}

}  // namespace recording_kernel

#endif
