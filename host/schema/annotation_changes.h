#ifndef SAGLEME_HOST_SCHEMA_ANNOTATION_CHANGES_H
#define SAGLEME_HOST_SCHEMA_ANNOTATION_CHANGES_H

// The annotations of schema documents, as changes of a plan.

#include <sagleme/schema_plan.hpp>
#include <string>

#include "schema/matching.h"

namespace sagleme {

// As CompareSchemas, but with the indexes that the documents have and no others.
Plan CompareAsTheyStand(SchemaDoc const& from, SchemaDoc const& to);
// With an index for each reference that has a rule, unless there is one that begins with it.
SchemaDoc WithReferrerIndexes(SchemaDoc schema);
SchemaDoc WithoutAnnotations(SchemaDoc schema);

// Adds what leads from the annotations of one schema to those of the other. They come last in a
// plan, when all that they belong to is there.
void AddAnnotations(SchemaDoc const& to, Matching const& kept, Plan& plan);

// Whether objects are read to find out if the annotation can be made.
bool ReadsObjects(change::Annotate const& change);
std::string DescribeAnnotation(change::Annotate const& change);
void ApplyAnnotation(Transaction& transaction, change::Annotate const& change);
// Without a look at the objects that are there.
void RestoreAnnotation(Transaction& transaction, change::Annotate const& change);

}  // namespace sagleme

#endif
