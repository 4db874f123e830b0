#ifndef SAGLEME_HOST_DATA_SERVER_LOAD_H
#define SAGLEME_HOST_DATA_SERVER_LOAD_H

#include <functional>
#include <sagleme/host/dump.hpp>
#include <string>

namespace sagleme {

using LoadInto = std::function<LoadResult(std::string const& directory)>;

// Has `load` build the database in a directory of this machine, and copies it to a server, so that
// nothing is there before it is complete. The directory is removed. Failure of kRefused when there
// is a database already. What `report` throws stops the copy too.
LoadResult LoadOntoServer(std::string const& url, TransferReport const& report,
                          LoadInto const& load);

}  // namespace sagleme

#endif
