#include <cstdlib>

#include "frame/traps.h"

// The stops stand in a code section of their own, so that a post-mortem finds them at a glance and
// the ordinary code stays free of them.
#define SAGLEME_TRAP __attribute__((section(".text_e"), noinline))

SAGLEME_TRAP void raise_unexpected_except(unsigned int) { std::abort(); }
SAGLEME_TRAP void raise_assertion_failure_except() { std::abort(); }
SAGLEME_TRAP void raise_assertion_failure_except_with_data(void const*) { std::abort(); }
SAGLEME_TRAP void raise_no_memory_except() { std::abort(); }
SAGLEME_TRAP void raise_unhandled_except() { std::abort(); }
