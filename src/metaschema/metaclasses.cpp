#include "metaschema/metaclasses.h"

namespace metalayer {

Metaclasses::Metaclasses(DatabaseState const& state) : slots_(g_exported_slots) {
  if (state.exported()) return;
  slots_ = own_slots_.data();
  values_ = std::make_unique<Values[]>(kClasses);
  for (std::size_t i = 0; i < kClasses; ++i) {
    Values& values = values_[i];
    own_slots_[i] = {&values.setspec, &values.type_id, &values.table_id, {}};
    for (std::size_t index = 0; index < kMaxOwnIndexes; ++index) {
      own_slots_[i].index_ids[index] = &values.index_ids[index];
    }
  }
}

// The statics go back to what they were at process start: the next database begins with them.
Metaclasses::~Metaclasses() {
  if (values_ != nullptr) return;
  for (MetaclassSlots const& slots : g_exported_slots) {
    slots.setspec->clear();
    *slots.type_id = 0;
    *slots.table_id = 0;
    for (unsigned long* const index_id : slots.index_ids) {
      if (index_id != nullptr) *index_id = 0;
    }
  }
}

MetaclassSlots const& SlotsOfMetaclass(unsigned int number) {
  return DatabaseState::Current().Get<Metaclasses>().slots(number);
}

}  // namespace metalayer
