// The loop shared by every client manager's SubscribeMetrics and
// UnsubscribeMetrics: one call per handle, in array order, with no rollback.
#ifndef KT_CLIENT_METRIC_BATCH_H_
#define KT_CLIENT_METRIC_BATCH_H_

#include "kt/client_manager.h"
#include "kt/status.h"

namespace MetricsFramework {

// Calls `call(metric)` for each of the `count` handles of `metrics`; a failed
// element is reported to `listener` (optional) at once and the batch goes on.
// KT_STATUS_PARTIAL_FAILURE when any element failed.
template <typename Call>
KT_STATUS ForEachMetricOf(const unsigned long* metrics, unsigned int count,
                          IClientManagerErrorListener* listener, Call call) {
  bool failed = false;
  for (unsigned int i = 0; i < count; ++i) {
    const KT_STATUS status = call(metrics[i]);
    if (status == KT_STATUS_SUCCESS) continue;
    failed = true;
    if (listener != nullptr) listener->OnError(metrics[i], status);
  }
  return failed ? KT_STATUS_PARTIAL_FAILURE : KT_STATUS_SUCCESS;
}

}  // namespace MetricsFramework

#endif  // KT_CLIENT_METRIC_BATCH_H_
