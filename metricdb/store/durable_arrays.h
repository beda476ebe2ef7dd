// The arrays of a database in its folder: a durable store (tslb/durable.h), and the errors of its functions as
// exceptions.
#pragma once

#include <tslb/durable.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>

#include "store/store.h"

namespace metricdb {

class DatabaseError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// Parameters of the arrays, which a store keeps.
struct ArrayParameters {
  uint8_t layout = NEWEST_LAYOUT;
  int key_slot_bytes = StoreConfig().key_slot_bytes;
  int point_slot_bytes = StoreConfig().point_slot_bytes;
};

// Returns the parameters of a database; nothing if the folder has none. Throws DatabaseError.
std::optional<ArrayParameters> stored_parameters(const std::string &folder);

// An open durable store. Its functions throw DatabaseError unless they return a result.
class DurableArrays {
 public:
  DurableArrays(const std::string &folder, const ArrayParameters &parameters, const tslb_store_options_t &options);

  tslb_store_t *get() const { return store_.get(); }
  // Views of the arrays, which belong to this object.
  StoreArrays arrays() const;
  tslb_store_info_t info() const;
  std::string payload() const;

<<<<<<< HEAD
  tslb_batch_t *begin() const;                         // null: refused; `error` says why
=======
  tslb_batch_t *begin() const;  // null: refused; `error` says why
>>>>>>> 849eaa61c1ff322441a9fbfeece636806ef785c7
  void set_payload(const std::string &payload) const;  // of an import
  void snapshot() const;
  void restore() const;
  void close();
  const std::string &error() const { return error_; }

 private:
  struct Close {
    void operator()(tslb_store_t *store) const { tslb_store_close(store, nullptr); }
  };
  std::unique_ptr<tslb_store_t, Close> store_;
  mutable std::string error_;
};

}  // namespace metricdb
