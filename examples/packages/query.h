#ifndef PACKAGES_QUERY_H
#define PACKAGES_QUERY_H

// What the program asks a loaded database, and how it prints the answers.

#include <string>

#include "session.h"

namespace packages {

struct Questions {
  std::string depended_on;  // package name
  std::string shown;        // package name
};

// Answers in one read-only transaction, to the standard output.
void AnswerAll(Session& session, Questions const& questions);

}  // namespace packages

#endif
