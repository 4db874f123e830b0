#ifndef SAGLEME_CXX20_HPP
#define SAGLEME_CXX20_HPP

// Ends the compilation with one sentence where the language is too old. #error would go on to
// report every line that uses what older languages lack.
#if __cplusplus < 202002L
#include "sagleme needs C++20: compile with -std=c++20 or newer"
#endif

#endif
