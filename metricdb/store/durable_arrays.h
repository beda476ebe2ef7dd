// The arrays of a database in its folder: a durable store (tslb/durable.h), and the errors of its functions as
// exceptions.
#pragma once

#include <tslb/durable.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "store/database_error.h"
#include "store/replica.h"
#include "store/store.h"

namespace metricdb {

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
  // replica  null: a store of its own.
  DurableArrays(const std::string &folder, const ArrayParameters &parameters, const tslb_store_options_t &options,
                const ReplicaOptions *replica = nullptr);

  tslb_store_t *get() const { return replica_ ? replica_->store() : store_.get(); }
  // Null if it is none.
  Replica *replica() const { return replica_.get(); }
  // Views of the arrays, which belong to this object.
  StoreArrays arrays() const;
  tslb_store_info_t info() const;
  std::string payload() const;

  tslb_batch_t *begin() const;                         // null: refused; `error` says why
  void set_payload(const std::string &payload) const;  // of an import
  void snapshot() const;
  void restore() const;
  void close();
  const std::string &error() const { return error_; }

 private:
  struct Close {
    void operator()(tslb_store_t *store) const { tslb_store_close(store, nullptr); }
  };
  std::unique_ptr<tslb_store_t, Close> store_;  // one of both
  std::unique_ptr<Replica> replica_;
  mutable std::string error_;
};

}  // namespace metricdb
