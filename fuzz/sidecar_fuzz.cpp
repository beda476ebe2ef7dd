// Reads any text as a sidecar, and as the description of a layout whose fields are then read from the text itself. Most
// inputs get a valid checksum, because random ones have none.
#include <stdio.h>
#include <stdlib.h>

#include <algorithm>

#include "inspect/sidecar.h"
#include "store_error.h"
#include "text_lines.h"

static void need(bool holds, const char *what) {
  if (holds) return;
  fprintf(stderr, "does not hold: %s\n", what);
  abort();
}

static void read_as_sidecar(const std::string &text) {
  try {
    const inspect::sidecar_t sidecar = inspect::parse_sidecar(text, "fuzz");
    need(inspect::sidecar_text(sidecar) == text, "an accepted sidecar is the text that is written");
    need(!sidecar.files.empty(), "a sidecar has a file");
  } catch (const tslb_durable::StoreError &error) {
    need(error.code() == TSLB_DURABLE_DAMAGED, "a text is refused as damaged");
  }
}

static void read_as_layout(const std::string &text) {
  try {
    const inspect::layout_t layout = inspect::parse_layout(text, "fuzz");
    need(inspect::fault_of(layout).empty(), "an accepted layout is valid");
    for (const inspect::layout_field_t &field : layout.fields) {
      need(inspect::parse_type(inspect::type_text(field.type)) == field.type, "a type is written as it was read");
      need(field.offset + field.type.total_bytes() <= layout.record_bytes, "a field lies in the record");
      const bool is_present = field.offset + field.type.total_bytes() <= text.size();
      const bool is_text = field.type.kind == inspect::field_kind_t::TEXT;
      need(is_text || is_present == !inspect::field_text(field, text).empty(), "only missing bytes have no value");
    }
  } catch (const inspect::layout_error_t &) {
  }
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size == 0) return 0;
  std::string text(reinterpret_cast<const char *>(data) + 1, size - 1);
  read_as_layout(text);
  if (data[0] % 8 != 0) tslb_durable::append_checksum(text);
  read_as_sidecar(text);
  return 0;
}
