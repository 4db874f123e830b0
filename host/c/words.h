#ifndef SAGLEME_HOST_C_WORDS_H
#define SAGLEME_HOST_C_WORDS_H

// The texts of failures of the functions for C.

#include <cstdint>

namespace sagleme {

// Keeps the text for the thread's sagleme_error(0, status), and returns the status.
std::uint32_t Failed(std::uint32_t status, char const* words);

}  // namespace sagleme

#endif
