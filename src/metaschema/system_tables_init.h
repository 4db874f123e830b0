#ifndef SAGLEME_METASCHEMA_SYSTEM_TABLES_INIT_H
#define SAGLEME_METASCHEMA_SYSTEM_TABLES_INIT_H

#include <sagleme/metalayer/metaschema.hpp>
#include <string>

namespace metalayer {

// One Init function per system table, in table order.
using MetaclassInit = unsigned short (*)(std::u16string const& setspec, unsigned long type_id);
extern MetaclassInit const g_inits[nr_meta_table_inits_generated_from_json];

// Finds the table's layout and indexes in the database and readies its class; false when the table
// is not all there.
bool init_meta_table(TABLE_INFO& table);

}  // namespace metalayer

#endif
