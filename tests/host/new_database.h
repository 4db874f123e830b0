#ifndef SAGLEME_TESTS_HOST_NEW_DATABASE_H
#define SAGLEME_TESTS_HOST_NEW_DATABASE_H

// A database of a test that opens it once: in memory, or where suites run on a server, there.

#include <sagleme/host.hpp>

#include "postgres_url.h"

namespace sagleme_test {

inline sagleme::Database NewDatabase() {
  if (lscore::RunsOnServer()) return sagleme::Database::Create(lscore::NewServerUrl());
  return sagleme::Database::InMemory();
}

}  // namespace sagleme_test

#endif
