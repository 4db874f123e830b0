#ifndef SAGLEME_METALAYER_CATALOGUE_HPP
#define SAGLEME_METALAYER_CATALOGUE_HPP

// The 25 system tables as classes.
//
// An object of such a class is a row reference with getters, null when a lookup found nothing. The
// statics hold what a process must know of a table to reach it without its name: kernel table id,
// kernel index ids, set specifier, type id. Start-up fills them; they keep their values until the
// process ends. The classes are generated from the description of the metaschema.

#include <sagleme/metalayer/metalayer_generated.hpp>
#include <sagleme/metalayer/records.hpp>
#include <string>

#endif
