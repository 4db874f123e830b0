#ifndef SAGLEME_FRAME_TRAPS_H
#define SAGLEME_FRAME_TRAPS_H

// Stops the process where an invariant is broken.

extern "C" {
// Emergency stops: each calls abort, whatever it is given.
[[noreturn]] void raise_unexpected_except(unsigned int code);
[[noreturn]] void raise_assertion_failure_except();
[[noreturn]] void raise_assertion_failure_except_with_data(void const* data);
[[noreturn]] void raise_no_memory_except();
[[noreturn]] void raise_unhandled_except();
}

#endif
