// Requests and replies: docs/remote_records.md.
#include "remote/mount_client_manager.h"

#include <utility>

#include "foundation/diagnostics.h"
#include "remote/descriptor_blob.h"
#include "remote/proxy_buffer.h"

namespace MetricsFramework {

MountClientManager::MountClientManager(unsigned long handle, unsigned long mountHandle,
                                       const std::string& name, IClientManager* manager,
                                       unsigned long transportConduit,
                                       unsigned long remoteConduit)
    : ClientManagerProxy(handle, mountHandle, name, manager, transportConduit, remoteConduit) {}

void MountClientManager::Drop() const {
  if (m_counts.fetch_sub(1, std::memory_order_acq_rel) == 1) delete this;
}

// ---------------------------------------------------------------------------
// Namespace queries. The peer never sees the caller's pointers, so a null one
// is refused here, as the peer's client manager refuses it.

KT_STATUS MountClientManager::GetPath(unsigned long root, const char* pathname,
                                      unsigned long* out_handle) const {
  const CallScope call(*this);
  if (out_handle == nullptr) return Fail(KT_STATUS_INVALID_ARGUMENT, "out_handle");
  if (pathname == nullptr) return Fail(KT_STATUS_INVALID_ARGUMENT, "pathname", pathname);
  return Exchange(ProxyBuffer(kOpGetPath, root, pathname), sizeof(*out_handle), out_handle,
                  sizeof(*out_handle), Answer::kAsAnswered);
}

KT_STATUS MountClientManager::GetChildCount(unsigned long parent, unsigned int* out_count) const {
  const CallScope call(*this);
  if (out_count == nullptr) return Fail(KT_STATUS_INVALID_ARGUMENT, "out_count");
  return Exchange(ProxyBuffer(kOpGetChildCount, parent, ""), sizeof(*out_count), out_count,
                  sizeof(*out_count), Answer::kAsAnswered);
}

KT_STATUS MountClientManager::GetChildren(unsigned long parent, unsigned long* out_children,
                                          unsigned int count) const {
  const CallScope call(*this);
  if (count != 0 && out_children == nullptr) {
    return Fail(KT_STATUS_INVALID_ARGUMENT, "out_children");
  }
  return Exchange(ProxyBuffer(kOpGetChildren, parent, static_cast<unsigned long>(count)), 256,
                  out_children, count * sizeof(unsigned long), Answer::kAsAnswered);
}

KT_STATUS MountClientManager::GetResourceInfo(unsigned long handle, ResourceInfo* out) const {
  const CallScope call(*this);
  if (out == nullptr) return Fail(KT_STATUS_INVALID_ARGUMENT, "out_resource");
  return FetchResourceInfo(handle, out, Answer::kAsAnswered);
}

KT_STATUS MountClientManager::GetMetricDescriptor(unsigned long metric,
                                                  Metric::Description* out_desc) const {
  const CallScope call(*this);
  if (out_desc == nullptr) return Fail(KT_STATUS_INVALID_ARGUMENT, "out_desc");
  ProxyBuffer reply(sizeof(Metric::Description));
  const KT_STATUS sent = Send(ProxyBuffer(kOpGetMetricDescriptor, metric), reply);
  KT_STATUS status = Answered(Answer::kAsAnswered, sent, reply);
  if (status != KT_STATUS_SUCCESS) return status;
  unsigned int size = 0;
  reply.ReadBack(&size, sizeof(size));
  // The size record goes first, so that the blob is the oldest record.
  const void* record = nullptr;
  unsigned long recordSize = 0;
  reply.GetData(&record, &recordSize);
  reply.MakeAvailable(record);
  reply.GetData(&record, &recordSize);
  // A reply whose blob is missing or not the size announced is no answer.
  if (record == nullptr || recordSize != size + 4ul) return KT_STATUS_INVALID_OPERATION;
  status = reply.ReadBack(nullptr, 0);
  if (status != KT_STATUS_SUCCESS) return status;
  Metric::Description desc;
  if (!DecodeDescription(static_cast<const unsigned char*>(record) + 4, size, &desc)) {
    return KT_STATUS_INVALID_OPERATION;
  }
  *out_desc = std::move(desc);
  return KT_STATUS_SUCCESS;
}

// ---------------------------------------------------------------------------
// Subscriptions and flushing, filed by the peer under the remote conduit.

KT_STATUS MountClientManager::SubscribeMetric(unsigned long consumer, unsigned long metric) {
  const CallScope call(*this);
  return Exchange(ProxyBuffer(kOpSubscribeMetric, consumer, GetRemoteConduit(), metric), 4,
                  nullptr, 0, Answer::kAsAnswered);
}

KT_STATUS MountClientManager::UnsubscribeMetric(unsigned long consumer, unsigned long metric) {
  const CallScope call(*this);
  return Exchange(ProxyBuffer(kOpUnsubscribeMetric, consumer, GetRemoteConduit(), metric), 4,
                  nullptr, 0, Answer::kAsAnswered);
}

KT_STATUS MountClientManager::FlushMetrics(unsigned long) {
  const CallScope call(*this);
  return Exchange(ProxyBuffer(kOpFlushMetrics, GetRemoteConduit()), 4, nullptr, 0,
                  Answer::kAsAnswered);
}

KT_STATUS MountClientManager::SubscribeMetrics(unsigned long consumer,
                                               const unsigned long* metrics, unsigned int count,
                                               IClientManagerErrorListener* listener) {
  const CallScope call(*this);
  return ClientManagerProxy::SubscribeMetrics(consumer, metrics, count, listener);
}

KT_STATUS MountClientManager::UnsubscribeMetrics(unsigned long consumer,
                                                 const unsigned long* metrics,
                                                 unsigned int count,
                                                 IClientManagerErrorListener* listener) {
  const CallScope call(*this);
  return ClientManagerProxy::UnsubscribeMetrics(consumer, metrics, count, listener);
}

// ---------------------------------------------------------------------------
// Remote method calls.

KT_STATUS MountClientManager::CallRemoteMethodSync(unsigned long method, const IReadBuffer* args,
                                                   IWriteBuffer* returns) {
  const CallScope call(*this);
  return ClientManagerProxy::CallRemoteMethodSync(method, args, returns);
}

}  // namespace MetricsFramework
