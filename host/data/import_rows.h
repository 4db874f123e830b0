#ifndef SAGLEME_HOST_DATA_IMPORT_ROWS_H
#define SAGLEME_HOST_DATA_IMPORT_ROWS_H

// Imports in batches, with the job that they are.

#include <sagleme/host/import.hpp>
#include <string>

#include "jobs/run.h"

namespace sagleme {

// False if the options or the run ended it before the last row.
bool ImportRows(Context const& context, std::u16string const& table, RowSource& rows,
                ImportOptions const& options, ImportResult& result, jobs::Run& run);

}  // namespace sagleme

#endif
