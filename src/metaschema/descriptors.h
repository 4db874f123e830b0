#ifndef METASCHEMA_DESCRIPTORS_H
#define METASCHEMA_DESCRIPTORS_H

// The descriptors that are in force in one database, by context: two contexts may prepare one
// database at the same time, and of their transactions one is then refused.

#include <map>
#include <memory>
#include <mutex>
#include <sagleme/metalayer/metaschema.hpp>

#include "frame/database_state.h"

namespace metalayer {

// Where the descriptors of one MetaschemaInit are kept.
struct DescriptorSet {
  using Tables = std::unique_ptr<TABLE_INFO[]>;
  using ByName = std::unique_ptr<MetaschemaInit::TableByName>;

  explicit DescriptorSet(bool exported)
      : tables(exported ? MetaschemaInit::g_inits_ : own_tables),
        by_name(exported ? MetaschemaInit::g_table_by_name_ : own_by_name) {}
  DescriptorSet(DescriptorSet const&) = delete;
  DescriptorSet& operator=(DescriptorSet const&) = delete;
  // The names first, which point at the tables.
  ~DescriptorSet() {
    by_name.reset();
    tables.reset();
  }

  Tables own_tables;
  ByName own_by_name;
  Tables& tables;
  ByName& by_name;
};

class Descriptors : public StatePart {
 public:
  static constexpr PartOf kPart = PartOf::kDescriptors;

  explicit Descriptors(DatabaseState const& state) : exported_(state.exported()) {}

  // Null when there are none.
  DescriptorSet* Find(unsigned long context);
  // Begins an empty set, in the place of an older one.
  void Begin(unsigned long context);
  void End(unsigned long context);

 private:
  bool const exported_;
  std::mutex mutex_;
  std::map<unsigned long, DescriptorSet> sets_;
};

}  // namespace metalayer

#endif
