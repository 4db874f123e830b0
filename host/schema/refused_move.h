#ifndef SAGLEME_HOST_SCHEMA_REFUSED_MOVE_H
#define SAGLEME_HOST_SCHEMA_REFUSED_MOVE_H

#include <sagleme/schema_plan.hpp>
#include <string>

namespace sagleme {

// The references that keep a table from moving, if there are any and the table and its new base
// are there. What else refuses a move may be removed by earlier changes of a plan.
std::string RefusalOfMove(Transaction& transaction, change::SetBase const& move);

}  // namespace sagleme

#endif
