// The exported functions: version and generation, bootstrap, booleans. The other families have
// files of their own beside this one.

#include "api/lsdbmetalayer.h"

#include <memory>
#include <sagleme/metalayer/catalogue.hpp>
#include <sagleme/metalayer/ddl.hpp>
#include <sagleme/metalayer/metaschema.hpp>
#include <sagleme/metalayer/schema.hpp>

#include "catalogue/version.h"
#include "frame/cps.h"

namespace metalayer {
namespace {

using Yield = boost::coroutines::push_coroutine<unsigned int>;

// A 0 returns control to the host after every step. A failure is the last value.
void co_lorv_prepare_system_tables(unsigned long context, Yield& yield) {
  unsigned int const status = MetalayerFunction<true>(context, [&yield] {
    MetaschemaInit metaschema;
    metaschema.CreateAndVerifyMetatables(yield);
    yield(0);
    InitMetalayer();
    yield(0);
  });
  // Outside any handler: a stack that is left inside one would mix its exceptions with its
  // resumer's.
  if (status != 0) yield(status);
}

struct HandleFreer {
  void operator()(continuation_context* handle) const { free_continuation_handle(handle); }
};

uint32_t PrepareSystemTables(uint64_t context, continuation_context** next, bool* more) {
  std::unique_ptr<continuation_context, HandleFreer> const handle(create_continuation_handle(
      [context](Yield& yield) { co_lorv_prepare_system_tables(context, yield); }));
  return run_continuation(handle.get(), next, more);
}

}  // namespace
}  // namespace metalayer

using namespace metalayer;

uint64_t lorv_get_metaschema_version(void) { return kMetaschemaVersion; }

// For code that runs inside a frame already: no frame, and a failure is thrown.
uint64_t lorv_get_metaschema_generation(void) {
  return GetULong(SchemaGeneration(), UserSchemaGeneration::kGeneration);
}

uint32_t lorv_prepare_system_tables(uint64_t context, continuation_context** next, bool* more) {
  return PrepareSystemTables(context, next, more);
}

uint32_t lorv_create_metadata(uint64_t context, continuation_context** next, bool* more) {
  return PrepareSystemTables(context, next, more);
}

uint32_t lorv_init_metalayer(uint64_t context) {
  return MetalayerFunction<true>(context, [] {
    MetaschemaInit const metaschema;
    InitMetalayer();
  });
}

uint32_t lorv_update_reference_columns_types(uint64_t context) {
  return MetalayerFunction<true>(context, [] { MetaPopul8r(true).UpdateRefTypes(); });
}

uint32_t lorv_meta_get_bool(uint64_t context, uint64_t oid, uint64_t addr, uint32_t column,
                            uint64_t* out) {
  return lorv_context_get_ulong(context, oid, addr, column, out);
}

uint32_t lorv_meta_put_bool(uint64_t context, uint64_t oid, uint64_t addr, uint32_t column,
                            uint64_t value) {
  return lorv_context_put_ulong(context, oid, addr, column, value != 0 ? 1 : 0);
}
