// The generation of the schema, which counts its changes, and how far start-up has come.

#include <sagleme/metalayer/catalogue.hpp>
#include <sagleme/metalayer/schema.hpp>

#include "catalogue/start_up.h"

namespace metalayer {

LS_OBJ_REF g_schema_generation = db_util::null_obj_ref;

namespace {

std::atomic<bool> g_meta_inited{false};

}  // namespace

StartUp::StartUp(DatabaseState const& state)
    : done(state.exported() ? g_meta_inited : own_done_),
      generation(state.exported() ? g_schema_generation : own_generation_) {}

StartUp::~StartUp() {
  done = false;
  generation = db_util::null_obj_ref;
}

LS_OBJ_REF& SchemaGeneration() { return CurrentStartUp().generation; }

void AdvanceSchemaGeneration() {
  LS_OBJ_REF const row = SchemaGeneration();
  unsigned long const generation = GetULong(row, UserSchemaGeneration::kGeneration);
  PutULong(row, UserSchemaGeneration::kGeneration, generation + 1);
}

}  // namespace metalayer
