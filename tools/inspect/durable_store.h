// Inspection of the folder of a durable store, as <tslb/durable.h> writes it.
#ifndef TSLB_INSPECT_DURABLE_STORE_H
#define TSLB_INSPECT_DURABLE_STORE_H

#include <string>

namespace inspect {

struct store_inspection_t {
  std::string output;  // text or JSON
  bool is_sound;
};

// Loads generation and journals with all checks of an opening, and describes them. Changes nothing; a writer can go on.
// Damage is a finding. Throws unreadable_t if the folder is not a store or cannot be read.
store_inspection_t inspect_store(const std::string &folder, bool json);

// Throws unreadable_t if the path is a file or the folder of a durable store but no array.
void expect_no_store(const std::string &path);

}  // namespace inspect

#endif
