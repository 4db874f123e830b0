#ifndef SAGLEME_SAGLEME_HPP
#define SAGLEME_SAGLEME_HPP

// The C++ API of sagleme, in one header. Programs link sagleme::host, or what
// `pkg-config --libs sagleme` prints.
//
//   databases, transactions, objects, ranges    <sagleme/host.hpp>, which has the rules
//   structs mapped to tables                    <sagleme/host/mapping.hpp> and those after it
//   checks, counts, vacuum                      <sagleme/check.hpp>, counts.hpp, vacuum.hpp
//   many objects in one call                    <sagleme/bulk.hpp>
//   the feed of changes, backups                <sagleme/changes.hpp>, backup.hpp
//   indexes built beside writers                <sagleme/index_build.hpp>
//   schema documents, plans, diagrams           <sagleme/schema_document.hpp> and those after it
//   objects and tables that change their place  <sagleme/hierarchy.hpp>
//
// The headers named here may be included alone. Those under <sagleme/metalayer/> are not part of
// the API: they are the binary interface for makers of language bindings.

#include <sagleme/annotations.hpp>
#include <sagleme/backup.hpp>
#include <sagleme/bulk.hpp>
#include <sagleme/changes.hpp>
#include <sagleme/check.hpp>
#include <sagleme/column_changes.hpp>
#include <sagleme/counts.hpp>
#include <sagleme/cxx20.hpp>
#include <sagleme/diagram.hpp>
#include <sagleme/failure.hpp>
#include <sagleme/hierarchy.hpp>
#include <sagleme/host.hpp>
#include <sagleme/host/define_tables.hpp>
#include <sagleme/host/mapping.hpp>
#include <sagleme/host/table_of.hpp>
#include <sagleme/index_build.hpp>
#include <sagleme/jobs.hpp>
#include <sagleme/schema_document.hpp>
#include <sagleme/schema_job.hpp>
#include <sagleme/schema_plan.hpp>
#include <sagleme/vacuum.hpp>
#include <sagleme/value_text.hpp>

#endif
