// The request that makes a follower the leader: POST /promote.
#pragma once

#include <cstdint>
#include <functional>

#include "net/query_workers.h"

namespace metricdb {

// Returns the epoch. Throws ReplicaRefused or DatabaseError.
using PromoteFunction = std::function<uint64_t()>;

// Calls the function, and answers with the epoch; 409 if another replica leads or this one cannot, 503 if the log does not
// answer.
QueryAnswer answer_promotion(const PromoteFunction &promote);

}  // namespace metricdb
