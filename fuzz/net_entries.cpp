// The network transport's fuzz entries; what each input means is in
// net_entries.h.
#include "fuzz/net_entries.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "net_transport/frame.h"

namespace kt_net {
namespace fuzz {

namespace {

void Check(bool holds, const char* what) {
  if (holds) return;
  std::fprintf(stderr, "fuzz check failed: %s\n", what);
  std::abort();
}

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

}  // namespace fuzz
}  // namespace kt_net
