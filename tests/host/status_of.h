#ifndef SAGLEME_TESTS_HOST_STATUS_OF_H
#define SAGLEME_TESTS_HOST_STATUS_OF_H

#include <cstdint>
#include <sagleme/sagleme.hpp>

// The status of the error that `work` throws; 0 when it throws none.
template <typename Work>
std::uint32_t StatusOf(Work const& work) {
  try {
    work();
  } catch (sagleme::Error const& error) {
    return error.status();
  }
  return 0;
}

#endif
