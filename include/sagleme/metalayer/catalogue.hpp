#ifndef SAGLEME_METALAYER_CATALOGUE_HPP
#define SAGLEME_METALAYER_CATALOGUE_HPP

// Part of the binary interface for makers of bindings; see <sagleme/metalayer.hpp>.
//
// The 25 system tables as classes.
//
// An object of such a class is a row reference with getters; it is null if a lookup found nothing.
// The static functions return what is needed to reach the table without its name: kernel table id,
// kernel index ids, set specifier and type id, each in the database of the thread's context.
// Start-up sets them; they end with the database's last close. The static variables are those of
// the first opened database. The classes are generated from the description of the metaschema.

#include <sagleme/metalayer/metalayer_generated.hpp>
#include <sagleme/metalayer/records.hpp>
#include <string>

#endif
