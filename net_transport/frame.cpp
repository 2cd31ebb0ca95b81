#include "net_transport/frame.h"

#include <cstring>

namespace kt_net {

namespace {

// Appends little-endian integers; the machine is little-endian (x86-64), so
// the bytes are those in memory.
template <typename T>
void Put(std::string& out, T value) {
  out.append(reinterpret_cast<const char*>(&value), sizeof value);
}

// Reads forward through a body and fails, once and for good, at the first
// field that does not fit.
class Reader {
 public:
  Reader(const unsigned char* data, uint32_t size) : m_data(data), m_left(size) {}
  template <typename T>
  bool Get(T* value) {
    if (m_left < sizeof(T)) return m_ok = false;
    std::memcpy(value, m_data, sizeof(T));
    Skip(sizeof(T));
    return m_ok;
  }
  // A view of the next `size` bytes.
  bool Bytes(uint32_t size, const unsigned char** view) {
    if (m_left < size) return m_ok = false;
    *view = m_data;
    Skip(size);
    return m_ok;
  }
  bool Text(std::string* text) {
    uint16_t size = 0;
    const unsigned char* bytes = nullptr;
    if (!Get(&size) || size > kMaxNameSize || !Bytes(size, &bytes)) return m_ok = false;
    text->assign(reinterpret_cast<const char*>(bytes), size);
    return m_ok;
  }
  // True when every field fitted and nothing is left over.
  bool Done() const { return m_ok && m_left == 0; }

 private:
  void Skip(uint32_t size) {
    m_data += size;
    m_left -= size;
  }
  const unsigned char* m_data;
  uint32_t m_left;
  bool m_ok = true;
};

std::string Header(FrameType type, uint64_t correlation, uint32_t remainingMs, size_t bodySize) {
  std::string out;
  out.reserve(kHeaderSize + bodySize);
  Put(out, kFrameMagic);
  Put(out, kFrameVersion);
  Put(out, static_cast<uint8_t>(type));
  Put(out, uint16_t{0});
  Put(out, correlation);
  Put(out, remainingMs);
  Put(out, static_cast<uint32_t>(bodySize));
  return out;
}

void PutText(std::string& out, const std::string& text) {
  const size_t size = text.size() < kMaxNameSize ? text.size() : kMaxNameSize;
  Put(out, static_cast<uint16_t>(size));
  out.append(text, 0, size);
}

// The frame, or nothing when it would be larger than either side accepts.
std::string Bounded(std::string frame) {
  return frame.size() <= kMaxFrameSize ? frame : std::string();
}

}  // namespace

std::string EncodeHello(FrameType type, const Hello& hello) {
  std::string body;
  Put(body, hello.guid);
  Put(body, hello.protocol);
  Put(body, hello.conduit);
  PutText(body, hello.name);
  return Header(type, 0, 0, body.size()) + body;
}

std::string EncodeRequest(uint64_t correlation, uint32_t remainingMs, const Request& request) {
  if (request.size > kMaxFrameSize) return std::string();
  std::string frame = Header(FrameType::kRequest, correlation, remainingMs, 12 + request.size);
  Put(frame, request.method);
  Put(frame, request.size);
  frame.append(reinterpret_cast<const char*>(request.record), request.size);
  return Bounded(std::move(frame));
}

std::string EncodeReply(uint64_t correlation, const Reply& reply) {
  if (reply.records.size() > kMaxReplyRecords) return std::string();
  size_t bodySize = 8;
  for (const RecordView& record : reply.records) bodySize += 4 + size_t{record.size};
  if (kHeaderSize + bodySize > kMaxFrameSize) return std::string();
  std::string frame = Header(FrameType::kReply, correlation, 0, bodySize);
  Put(frame, reply.status);
  Put(frame, static_cast<uint32_t>(reply.records.size()));
  for (const RecordView& record : reply.records) {
    Put(frame, record.size);
    frame.append(reinterpret_cast<const char*>(record.data), record.size);
  }
  return frame;
}

std::string EncodeHeartbeat() { return Header(FrameType::kHeartbeat, 0, 0, 0); }

std::string EncodeBye(const Bye& bye) {
  std::string body;
  Put(body, static_cast<uint32_t>(bye.reason));
  PutText(body, bye.text);
  return Header(FrameType::kBye, 0, 0, body.size()) + body;
}

bool DecodeHeader(const void* data, size_t size, FrameHeader* header, const unsigned char** body,
                  uint32_t* bodySize) {
  if (data == nullptr || size < kHeaderSize || size > kMaxFrameSize) return false;
  const auto* bytes = static_cast<const unsigned char*>(data);
  uint32_t magic = 0, length = 0;
  uint8_t type = 0;
  std::memcpy(&magic, bytes, 4);
  std::memcpy(&header->version, bytes + 4, 1);
  std::memcpy(&type, bytes + 5, 1);
  std::memcpy(&header->flags, bytes + 6, 2);
  std::memcpy(&header->correlation, bytes + 8, 8);
  std::memcpy(&header->remainingMs, bytes + 16, 4);
  std::memcpy(&length, bytes + 20, 4);
  if (magic != kFrameMagic) return false;
  if (type < static_cast<uint8_t>(FrameType::kHello) || type > static_cast<uint8_t>(FrameType::kBye)) {
    return false;
  }
  if (length != size - kHeaderSize) return false;
  header->type = static_cast<FrameType>(type);
  *body = bytes + kHeaderSize;
  *bodySize = length;
  return true;
}

bool DecodeHello(const unsigned char* body, uint32_t size, Hello* out) {
  Reader reader(body, size);
  reader.Get(&out->guid);
  reader.Get(&out->protocol);
  reader.Get(&out->conduit);
  reader.Text(&out->name);
  return reader.Done();
}

bool DecodeRequest(const unsigned char* body, uint32_t size, Request* out) {
  Reader reader(body, size);
  reader.Get(&out->method);
  reader.Get(&out->size);
  reader.Bytes(out->size, &out->record);
  return reader.Done();
}

bool DecodeReply(const unsigned char* body, uint32_t size, Reply* out) {
  Reader reader(body, size);
  uint32_t count = 0;
  if (!reader.Get(&out->status) || !reader.Get(&count) || count > kMaxReplyRecords) return false;
  // Each record takes at least its 4-byte length: a count the body cannot
  // hold is refused before anything is reserved for it.
  if (count > (size - 8) / 4) return false;
  out->records.clear();
  out->records.reserve(count);
  for (uint32_t i = 0; i < count; ++i) {
    RecordView record;
    if (!reader.Get(&record.size) || !reader.Bytes(record.size, &record.data)) return false;
    out->records.push_back(record);
  }
  return reader.Done();
}

bool DecodeBye(const unsigned char* body, uint32_t size, Bye* out) {
  Reader reader(body, size);
  uint32_t reason = 0;
  reader.Get(&reason);
  reader.Text(&out->text);
  out->reason = static_cast<ByeReason>(reason);
  return reader.Done();
}

bool DecodeFrame(const void* data, size_t size) {
  FrameHeader header;
  const unsigned char* body = nullptr;
  uint32_t bodySize = 0;
  if (!DecodeHeader(data, size, &header, &body, &bodySize)) return false;
  switch (header.type) {
    case FrameType::kHello:
    case FrameType::kWelcome: {
      Hello hello;
      return DecodeHello(body, bodySize, &hello);
    }
    case FrameType::kRequest: {
      Request request;
      return DecodeRequest(body, bodySize, &request);
    }
    case FrameType::kReply: {
      Reply reply;
      return DecodeReply(body, bodySize, &reply);
    }
    case FrameType::kHeartbeat:
      return bodySize == 0;
    case FrameType::kBye: {
      Bye bye;
      return DecodeBye(body, bodySize, &bye);
    }
  }
  return false;
}

}  // namespace kt_net
