#include "net/promote_api.h"

#include <nlohmann/json.hpp>

#include "store/log.h"
#include "store/replica.h"

namespace metricdb {
namespace {

QueryAnswer promotion_json(http_status status, const nlohmann::ordered_json &json) {
  return {status, "application/json", json.dump() + "\n"};
}

QueryAnswer promotion_error(http_status status, const std::exception &error) {
  TSLB_DLOG(LOG_REFUSALS, "not promoted: %s", error.what());
  return promotion_json(status, {{"error", error.what()}});
}

}  // namespace

QueryAnswer answer_promotion(const PromoteFunction &promote) {
  try {
    const uint64_t epoch = promote();
    return promotion_json(HTTP_STATUS_OK, {{"role", "leader"}, {"epoch", epoch}});
  } catch (const ReplicaRefused &refusal) {
    return promotion_error(HTTP_STATUS_CONFLICT, refusal);
  } catch (const std::exception &error) {
    return promotion_error(HTTP_STATUS_SERVICE_UNAVAILABLE, error);
  }
}

}  // namespace metricdb
