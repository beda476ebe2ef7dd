// Configuration and figures of a store as text, one per line. Each batch of a database contains it as its payload.
#pragma once

#include <stdexcept>
#include <string>
#include <string_view>

#include "store/store.h"

namespace metricdb {

class FiguresError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

std::string figures_text(const StoreConfig &config, const StoreState &state);

// Each content has exactly one text. Throws FiguresError with a one-line message for another text.
void read_figures(std::string_view text, StoreConfig &config, StoreState &state);

}  // namespace metricdb
