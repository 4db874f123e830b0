#ifndef METASCHEMA_METACLASSES_H
#define METASCHEMA_METACLASSES_H

// What the classes of the system tables know of one database. Written by start-up and bootstrap of
// that database alone, and read without a lock afterwards.

#include <array>
#include <memory>
#include <sagleme/metalayer/metaschema.hpp>

#include "frame/database_state.h"

namespace metalayer {

// The statics of the classes, in table order.
extern MetaclassSlots const g_exported_slots[nr_meta_table_inits_generated_from_json];

class Metaclasses : public StatePart {
 public:
  static constexpr PartOf kPart = PartOf::kMetaclasses;

  explicit Metaclasses(DatabaseState const& state);
  ~Metaclasses() override;

  MetaclassSlots const& slots(unsigned int number) const { return slots_[number]; }

 private:
  struct Values {
    std::u16string setspec;
    unsigned long type_id = 0;
    unsigned short table_id = 0;
    unsigned long index_ids[kMaxOwnIndexes] = {};
  };
  static constexpr std::size_t kClasses = nr_meta_table_inits_generated_from_json;

  MetaclassSlots const* slots_;
  std::array<MetaclassSlots, kClasses> own_slots_;
  std::unique_ptr<Values[]> values_;  // null when the statics are the storage
};

}  // namespace metalayer

#endif
