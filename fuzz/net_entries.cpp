// The network transport's fuzz entries; what each input means is in
// net_entries.h.
#include "fuzz/net_entries.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "fuzz/entries.h"
#include "fuzz/served_process.h"
#include "kt/peer_mount.h"
#include "net_transport/frame.h"
#include "net_transport/net_settings.h"
#include "net_transport/record_buffer.h"

namespace kt_net {
namespace fuzz {

namespace {

using MetricsFramework::fuzz::Check;

// The frame the encoders make of what the decoders read, or "" when the
// message is not a frame.
std::string Reencoded(const unsigned char* data, size_t size) {
  FrameHeader header;
  const unsigned char* body = nullptr;
  uint32_t bodySize = 0;
  if (!DecodeHeader(data, size, &header, &body, &bodySize)) return "";
  switch (header.type) {
    case FrameType::kHello:
    case FrameType::kWelcome: {
      Hello hello;
      return DecodeHello(body, bodySize, &hello) ? EncodeHello(header.type, hello) : "";
    }
    case FrameType::kRequest: {
      Request request;
      if (!DecodeRequest(body, bodySize, &request)) return "";
      return EncodeRequest(header.correlation, header.remainingMs, request);
    }
    case FrameType::kReply: {
      Reply reply;
      return DecodeReply(body, bodySize, &reply) ? EncodeReply(header.correlation, reply) : "";
    }
    case FrameType::kHeartbeat:
      return bodySize == 0 ? EncodeHeartbeat() : "";
    case FrameType::kBye: {
      Bye bye;
      return DecodeBye(body, bodySize, &bye) ? EncodeBye(bye) : "";
    }
  }
  return "";
}

}  // namespace

int FuzzNetFrame(const uint8_t* data, size_t size) {
  // An exact heap copy, so that the sanitizer sees any read past the message.
  std::vector<unsigned char> message(data, data + size);
  message.shrink_to_fit();
  const unsigned char* bytes = message.empty() ? nullptr : message.data();
  const std::string again = Reencoded(bytes, size);
  Check(DecodeFrame(bytes, size) == !again.empty(), "DecodeFrame agrees with the body decoders");
  if (again.empty()) return 0;
  std::string expected(reinterpret_cast<const char*>(bytes), size);
  expected[4] = static_cast<char>(kFrameVersion);
  expected[6] = expected[7] = 0;
  const auto type = static_cast<FrameType>(expected[5]);
  if (type != FrameType::kRequest && type != FrameType::kReply) {
    std::memset(&expected[8], 0, 12);
  } else if (type == FrameType::kReply) {
    std::memset(&expected[16], 0, 4);
  }
  Check(again == expected, "a decoded frame re-encodes to its own bytes");
  return 0;
}

int FuzzNetServe(const uint8_t* data, size_t size) {
  std::vector<unsigned char> message(data, data + size);
  message.shrink_to_fit();
  FrameHeader header;
  const unsigned char* body = nullptr;
  uint32_t bodySize = 0;
  Request request;
  if (!DecodeHeader(message.empty() ? nullptr : message.data(), size, &header, &body,
                    &bodySize) ||
      header.type != FrameType::kRequest || !DecodeRequest(body, bodySize, &request)) {
    return 0;
  }
  uint32_t op = 0;
  if (request.size >= sizeof op) std::memcpy(&op, request.record, sizeof op);
  NetSettings settings;
  settings.serve = ServePolicy::kFull;
  if (request.method != MetricsFramework::kCommandMethodHandle || op == 0 ||
      op > settings.LastServedOp()) {
    return 0;
  }
  MetricsFramework::fuzz::ServedProcess process;
  RecordBuffer in(std::string(reinterpret_cast<const char*>(request.record), request.size));
  RecordBuffer out;
  const bool served = process.Command().Run(&in, &out);
  Reply reply{served ? 0u : 4u, {}};
  for (const std::string& record : out.Records()) {
    reply.records.push_back({reinterpret_cast<const unsigned char*>(record.data()),
                             static_cast<uint32_t>(record.size())});
  }
  const std::string frame = EncodeReply(header.correlation, reply);
  if (frame.empty()) return 0;  // too large for one frame: answered as out of resources
  Reply back;
  Check(DecodeHeader(frame.data(), frame.size(), &header, &body, &bodySize) &&
            DecodeReply(body, bodySize, &back) && back.status == reply.status &&
            back.records.size() == out.Records().size(),
        "a reply frame decodes to what was served");
  for (size_t i = 0; i < back.records.size(); ++i) {
    Check(std::string(reinterpret_cast<const char*>(back.records[i].data), back.records[i].size) ==
              out.Records()[i],
          "every reply record crosses unchanged");
  }
  return 0;
}

}  // namespace fuzz
}  // namespace kt_net
