// The frames two linked processes exchange: a fixed 24-byte header and a body
// whose layout depends on the frame's type. docs/net_frames.md describes every
// byte; this header turns frames into bytes and back.
//
// Every decoder is bounded: it reads only the bytes it is given, the header's
// body length must equal what follows the header, every inner length and
// count must fit exactly in the body, and nothing is allocated beyond the
// message itself (reply records are views into the message). A decoder that
// returns false has found the frame malformed; its outputs are then
// unspecified.
//
// Everything here is a pure function of its arguments and may be called from
// any thread.
#ifndef KT_NET_TRANSPORT_FRAME_H_
#define KT_NET_TRANSPORT_FRAME_H_

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace kt_net {

constexpr uint32_t kFrameMagic = 0x464E544Bu;  // "KTNF" in memory
constexpr uint8_t kFrameVersion = 1;
constexpr size_t kHeaderSize = 24;
// The largest message either side accepts; the engine refuses larger ones
// before it allocates them.
constexpr size_t kMaxFrameSize = 4u << 20;
// The most reply records one reply frame may carry.
constexpr uint32_t kMaxReplyRecords = 4096;
// The longest name a hello may carry, and the longest reason text of a bye.
constexpr size_t kMaxNameSize = 255;

enum class FrameType : uint8_t {
  kHello = 1,      // dialler to listener: who I am
  kWelcome = 2,    // listener to dialler: who I am, link accepted
  kRequest = 3,    // one request record for a remote method
  kReply = 4,      // the dispatch status and the reply records
  kHeartbeat = 5,  // still here
  kBye = 6,        // the link is closed or refused, and why
};

// Why a bye was sent.
enum class ByeReason : uint32_t {
  kShutdown = 1,
  kVersion = 2,
  kSameRegistry = 3,
  kAlreadyLinked = 4,
  kNotLinked = 5,  // a frame came from a peer with no link here: say hello again
};

// The link protocol a hello carries: links form only between equal versions.
constexpr uint32_t kLinkProtocol = 1;

struct FrameHeader {
  uint8_t version = kFrameVersion;
  FrameType type = FrameType::kHeartbeat;
  uint16_t flags = 0;
  uint64_t correlation = 0;  // a request's id; its reply carries the same
  uint32_t remainingMs = 0;  // a request's time left to its deadline; 0 otherwise
};

// The body of a hello and of a welcome.
struct Hello {
  uint32_t guid = 0;           // the sender's registry GUID
  uint32_t protocol = 0;       // the sender's link protocol version
  uint64_t conduit = 0;        // the sender's link-conduit handle
  std::string name;            // offered to the peer for its mount; at most 255 bytes
};

// A request: the method it is for and its one record, a view into the message.
struct Request {
  uint64_t method = 0;
  const unsigned char* record = nullptr;
  uint32_t size = 0;
};

// One reply record, a view into the message (encoding reads the bytes).
struct RecordView {
  const unsigned char* data = nullptr;
  uint32_t size = 0;
};

struct Reply {
  uint32_t status = 0;
  std::vector<RecordView> records;
};

struct Bye {
  ByeReason reason = ByeReason::kShutdown;
  std::string text;  // at most 255 bytes
};

// Encoders: the whole frame, header included. Names and texts longer than
// kMaxNameSize are cut; a reply with more than kMaxReplyRecords records or a
// frame larger than kMaxFrameSize is not encoded (the result is empty).
std::string EncodeHello(FrameType type, const Hello& hello);  // kHello or kWelcome
std::string EncodeRequest(uint64_t correlation, uint32_t remainingMs, const Request& request);
std::string EncodeReply(uint64_t correlation, const Reply& reply);
std::string EncodeHeartbeat();
std::string EncodeBye(const Bye& bye);

// Checks the header of the message `data`, `size` bytes: the magic, a known
// type, and a body length equal to size - kHeaderSize. On success fills
// `header` and points `body` at the body. Any version is accepted here: the
// caller decides what a version it does not speak means.
bool DecodeHeader(const void* data, size_t size, FrameHeader* header, const unsigned char** body,
                  uint32_t* bodySize);
// Body decoders, for a body that DecodeHeader found.
bool DecodeHello(const unsigned char* body, uint32_t size, Hello* out);
bool DecodeRequest(const unsigned char* body, uint32_t size, Request* out);
bool DecodeReply(const unsigned char* body, uint32_t size, Reply* out);
bool DecodeBye(const unsigned char* body, uint32_t size, Bye* out);
// The header and the body of its type, in one check: what a receiver runs on
// every message. A heartbeat's body must be empty.
bool DecodeFrame(const void* data, size_t size);

}  // namespace kt_net

#endif  // KT_NET_TRANSPORT_FRAME_H_
