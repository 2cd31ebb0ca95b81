// Requests and replies: docs/remote_records.md.
#include "remote/client_manager_proxy.h"

#include <utility>
#include <vector>

#include "client/default_client_manager.h"
#include "client/metric_batch.h"
#include "registry/registry.h"
#include "remote/client_command_method.h"
#include "remote/descriptor_blob.h"
#include "remote/proxy_buffer.h"

namespace MetricsFramework {

namespace {

// The resource record before its name, and room for a name of ordinary
// length; a longer one makes the reply buffer grow.
constexpr unsigned int kResourceRecordSize = 64;
constexpr unsigned int kResourceReplyCapacity = kResourceRecordSize + 256;
constexpr unsigned int kDescriptorReplyCapacity = sizeof(Metric::Description);

}  // namespace

ClientManagerProxy::ClientManagerProxy(unsigned long handle, unsigned long mountHandle,
                                       const std::string& name, IClientManager* manager,
                                       unsigned long transportConduit,
                                       unsigned long remoteConduit)
    : m_handle(handle),
      m_mountHandle(mountHandle),
      m_manager(dynamic_cast<DefaultClientManager*>(manager)),
      m_transportConduit(transportConduit),
      m_remoteConduit(remoteConduit),
      m_name(name),
      m_reserved{0, 0, 0} {}

ClientManagerProxy::~ClientManagerProxy() = default;

KT_STATUS ClientManagerProxy::Send(const ProxyBuffer& request, ProxyBuffer& reply) const {
  // Without a local client manager there is no way to the peer: the call
  // fails like one whose conduit is unknown.
  if (m_manager == nullptr) return KT_STATUS_INVALID_OBJECT;
  return m_manager->CallRemoteMethodSync(m_transportConduit, kClientCommandHandle, &request,
                                         &reply);
}

KT_STATUS ClientManagerProxy::Answered(Answer answer, KT_STATUS sent, const ProxyBuffer& reply) {
  const KT_STATUS status = reply.ReadBack(nullptr, 0);
  // Both statuses count: a failed transport with a stale reply is still a
  // failure, and so is a good transport with a failed operation.
  if (answer == Answer::kJoined) return sent | status;
  const void* record = nullptr;
  unsigned long size = 0;
  reply.GetData(&record, &size);
  if (record != nullptr) return status;
  return sent != KT_STATUS_SUCCESS ? sent : status;
}

KT_STATUS ClientManagerProxy::Exchange(const ProxyBuffer& request, unsigned int replyCapacity,
                                       void* out, unsigned int outSize, Answer answer) const {
  ProxyBuffer reply(replyCapacity);
  const KT_STATUS status = Answered(answer, Send(request, reply), reply);
  if (answer == Answer::kJoined || status == KT_STATUS_SUCCESS) reply.ReadBack(out, outSize);
  return status;
}

// ---------------------------------------------------------------------------
// Namespace queries.

KT_STATUS ClientManagerProxy::GetPath(unsigned long root, const char* pathname,
                                      unsigned long* out_handle) const {
  // The request carries the text itself; a null one has none to carry.
  if (pathname == nullptr) return KT_STATUS_INVALID_ARGUMENT;
  return Exchange(ProxyBuffer(kOpGetPath, root, pathname), sizeof(*out_handle), out_handle,
                  sizeof(*out_handle));
}

KT_STATUS ClientManagerProxy::GetChildCount(unsigned long parent,
                                            unsigned int* out_count) const {
  return Exchange(ProxyBuffer(kOpGetChildCount, parent, ""), sizeof(*out_count), out_count,
                  sizeof(*out_count));
}

KT_STATUS ClientManagerProxy::GetChildren(unsigned long parent, unsigned long* out_children,
                                          unsigned int count) const {
  return Exchange(ProxyBuffer(kOpGetChildren, parent, static_cast<unsigned long>(count)), 256,
                  out_children, count * sizeof(unsigned long));
}

KT_STATUS ClientManagerProxy::GetResourceInfo(unsigned long handle, ResourceInfo* out) const {
  return FetchResourceInfo(handle, out, Answer::kJoined);
}

KT_STATUS ClientManagerProxy::FetchResourceInfo(unsigned long handle, ResourceInfo* out,
                                                Answer answer) const {
  ProxyBuffer reply(kResourceReplyCapacity);
  const KT_STATUS status = Answered(answer, Send(ProxyBuffer(kOpGetResourceInfo, handle), reply),
                                    reply);
  if (status != KT_STATUS_SUCCESS) return status;
  // The record carries the name after its fixed part, so its size is only
  // known from the reply itself.
  const void* data = nullptr;
  unsigned long size = 0;
  reply.GetData(&data, &size);
  std::vector<unsigned char> record(size > 4 ? size - 4 : 0);
  reply.ReadBack(record.data(), static_cast<unsigned int>(record.size()));
  ResourceInfo info;
  // A reply without a whole record is no answer at all.
  if (!DecodeResourceInfo(record.data(), record.size(), &info)) {
    return KT_STATUS_INVALID_OPERATION;
  }
  if (info.parent == 0) {
    // The peer's root is shown where it is mounted here.
    info.parent = m_mountHandle;
    info.name = m_name;
  }
  if (out != nullptr) *out = std::move(info);
  return KT_STATUS_SUCCESS;
}

KT_STATUS ClientManagerProxy::GetMetricDescriptor(unsigned long metric,
                                                  Metric::Description* out_desc) const {
  ProxyBuffer reply(kDescriptorReplyCapacity);
  Send(ProxyBuffer(kOpGetMetricDescriptor, metric), reply);  // only the replies count
  unsigned int size = 0;
  KT_STATUS status = reply.ReadBack(&size, sizeof(size));
  if (status != KT_STATUS_SUCCESS) return status;
  if (size == 0) return reply.ReadBack(nullptr, 0);
  // The size is the peer's word: a blob larger than everything the reply
  // holds cannot be in it, and is not allocated. Such a reply is no answer,
  // as a resource record that cannot be decoded is none.
  if (size > reply.QueuedBytes()) return KT_STATUS_INVALID_OPERATION;
  std::vector<unsigned char> blob(size, 0);
  // Intended as clients know it: the size record is not released first, so
  // this reads the oldest record again, and the blob arrives only from a
  // transport that left the blob as the oldest record.
  status = reply.ReadBack(blob.data(), size);
  if (status != KT_STATUS_SUCCESS) return status;
  if (out_desc != nullptr) DecodeDescription(blob.data(), blob.size(), out_desc);
  return status;
}

KT_STATUS ClientManagerProxy::GetMetrics(
    unsigned long, std::vector<std::pair<unsigned long, Metric::Description>>&,
    std::vector<std::string>*, std::map<unsigned int, std::string>*) const {
  return KT_STATUS_SUCCESS;
}

// ---------------------------------------------------------------------------
// Subscriptions and flushing.

KT_STATUS ClientManagerProxy::SubscribeMetric(unsigned long consumer, unsigned long metric) {
  return Exchange(ProxyBuffer(kOpSubscribeMetric, consumer, m_remoteConduit, metric), 4, nullptr,
                  0);
}

KT_STATUS ClientManagerProxy::UnsubscribeMetric(unsigned long consumer, unsigned long metric) {
  return Exchange(ProxyBuffer(kOpUnsubscribeMetric, consumer, m_remoteConduit, metric), 4,
                  nullptr, 0);
}

KT_STATUS ClientManagerProxy::FlushMetrics(unsigned long) {
  // Intended: the peer flushes the conduit this client's subscriptions are
  // filed under; it does not know the local consumer.
  return Exchange(ProxyBuffer(kOpFlushMetrics, m_remoteConduit), 4, nullptr, 0);
}

KT_STATUS ClientManagerProxy::SubscribeMetrics(unsigned long consumer,
                                               const unsigned long* metrics, unsigned int count,
                                               IClientManagerErrorListener* listener) {
  return ForEachMetric(&ClientManagerProxy::SubscribeMetric, consumer, metrics, count, listener);
}

KT_STATUS ClientManagerProxy::UnsubscribeMetrics(unsigned long consumer,
                                                 const unsigned long* metrics,
                                                 unsigned int count,
                                                 IClientManagerErrorListener* listener) {
  return ForEachMetric(&ClientManagerProxy::UnsubscribeMetric, consumer, metrics, count,
                       listener);
}

KT_STATUS ClientManagerProxy::ForEachMetric(
    KT_STATUS (ClientManagerProxy::*operation)(unsigned long, unsigned long),
    unsigned long consumer, const unsigned long* metrics, unsigned int count,
    IClientManagerErrorListener* listener) {
  // A batch of no metrics succeeds whatever its array; a batch without an
  // array is refused before anything is sent.
  if (count > 0 && metrics == nullptr) return KT_STATUS_INVALID_ARGUMENT;
  // The listener is optional, as for every client manager.
  return ForEachMetricOf(metrics, count, listener,
                         [&](unsigned long metric) { return (this->*operation)(consumer, metric); });
}

// ---------------------------------------------------------------------------
// Remote method calls.

KT_STATUS ClientManagerProxy::CallRemoteMethodSync(unsigned long method, const IReadBuffer* args,
                                                   IWriteBuffer* returns) {
  if (m_manager == nullptr) return KT_STATUS_INVALID_OBJECT;
  const ProxyBuffer request(kOpCallRemoteMethod, method, args);
  // The called method writes its own reply into the caller's buffer.
  return m_manager->CallRemoteMethodSync(m_transportConduit, kClientCommandHandle, &request,
                                         returns);
}

// ---------------------------------------------------------------------------
// Probes are not available through a proxy.

KT_STATUS ClientManagerProxy::CreateProbe(unsigned long, void*, unsigned long*) {
  return KT_STATUS_INVALID_OPERATION;
}

KT_STATUS ClientManagerProxy::DestroyProbe(unsigned long) { return KT_STATUS_INVALID_OPERATION; }

KT_STATUS ClientManagerProxy::BeginProbe(unsigned long, unsigned long, unsigned long,
                                         Metrics::EventType, void*) const {
  return KT_STATUS_INVALID_OPERATION;
}

KT_STATUS ClientManagerProxy::EndProbe(unsigned long, unsigned long, Metrics::EventType,
                                       void*) const {
  return KT_STATUS_INVALID_OPERATION;
}

KT_STATUS ClientManagerProxy::HandleProbe(unsigned long) const {
  return KT_STATUS_INVALID_OPERATION;
}

KT_STATUS ClientManagerProxy::OnChangeStateCommandList(unsigned long, void*, void*,
                                                       Metrics::CommandListState) const {
  return KT_STATUS_INVALID_OPERATION;
}

}  // namespace MetricsFramework
