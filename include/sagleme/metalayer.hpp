#ifndef SAGLEME_METALAYER_HPP
#define SAGLEME_METALAYER_HPP

// The exported C++ of the metadata layer: the binary interface for makers of language bindings, who
// link or load these names. It is not an API for programs, which
// include <sagleme/sagleme.hpp>.
//
// All of it works in the thread's kernel context, TlsMetalayerContext::Current(), and inside the
// transaction that the host has open there. Failures are thrown as db_util::db_exception; their
// text is in the error buffer of the context. Rows, texts and iterators are valid until the
// transaction ends.

#include <sagleme/cxx20.hpp>
#include <sagleme/metalayer/catalogue.hpp>
#include <sagleme/metalayer/context.hpp>
#include <sagleme/metalayer/crud.hpp>
#include <sagleme/metalayer/ddl.hpp>
#include <sagleme/metalayer/errors.hpp>
#include <sagleme/metalayer/keys.hpp>
#include <sagleme/metalayer/metaschema.hpp>
#include <sagleme/metalayer/names.hpp>
#include <sagleme/metalayer/records.hpp>
#include <sagleme/metalayer/schema.hpp>
#include <sagleme/metalayer/types.hpp>

#endif
