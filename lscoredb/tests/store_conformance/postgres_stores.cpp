// The store on the server that the environment names, each new one in a schema of its own.

#include "postgres_store.h"
#include "postgres_url.h"
#include "stores.h"

namespace lscore {

std::vector<TestedStore> const& NewStores() {
  static std::vector<TestedStore> const stores = {
      {"postgres",
       [](StoreOptions const& options) {
         return std::make_unique<PostgresStore>(NewServerUrl(), options);
       }},
  };
  return stores;
}

}  // namespace lscore
