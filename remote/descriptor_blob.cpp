// Blob layout: docs/remote_records.md, "Descriptor blob".
#include "remote/descriptor_blob.h"

#include <cstring>
#include <vector>

namespace MetricsFramework {

namespace {

void PutBytes(std::string* blob, const void* data, size_t size) {
  blob->append(static_cast<const char*>(data), size);
}

void PutU32(std::string* blob, unsigned int value) { PutBytes(blob, &value, sizeof value); }

void PutU8(std::string* blob, unsigned char value) { blob->push_back(static_cast<char>(value)); }

void PutText(std::string* blob, const std::string& text) {
  blob->append(text);
  blob->push_back('\0');
}

void PutList(std::string* blob, const std::vector<unsigned int>& list) {
  PutU32(blob, static_cast<unsigned int>(list.size()));
  if (!list.empty()) PutBytes(blob, list.data(), list.size() * sizeof(unsigned int));
}

// Reads a blob front to back. Every Get fails, without reading, once the blob
// has fewer bytes left than asked: the blob comes from another process.
class BlobReader {
 public:
  BlobReader(const void* blob, unsigned long size)
      : next_(static_cast<const unsigned char*>(blob)), left_(blob != nullptr ? size : 0) {}

  bool GetBytes(void* out, unsigned long size) {
    if (size > left_) return false;
    if (size > 0) std::memcpy(out, next_, size);
    next_ += size;
    left_ -= size;
    return true;
  }
  bool GetU32(unsigned int* value) { return GetBytes(value, sizeof *value); }
  bool GetU8(unsigned char* value) { return GetBytes(value, sizeof *value); }

  // A string must end inside the blob; one without its NUL fails.
  bool GetText(std::string* text) {
    const void* end = left_ > 0 ? std::memchr(next_, 0, left_) : nullptr;
    if (end == nullptr) return false;
    unsigned long length = static_cast<const unsigned char*>(end) - next_;
    text->assign(reinterpret_cast<const char*>(next_), length);
    next_ += length + 1;
    left_ -= length + 1;
    return true;
  }

  // The count is checked against the bytes left before anything is reserved,
  // so a forged count cannot ask for gigabytes.
  bool AppendList(std::vector<unsigned int>* list) {
    unsigned int count;
    if (!GetU32(&count) || count > left_ / sizeof(unsigned int)) return false;
    if (count == 0) return true;
    size_t old = list->size();
    list->resize(old + count);
    return GetBytes(list->data() + old, count * sizeof(unsigned int));
  }

 private:
  const unsigned char* next_;
  unsigned long left_;
};

}  // namespace

std::string EncodeDescription(const Metric::Description& desc) {
  std::string blob;
  blob.reserve(62 + desc.uri.size() + desc.text1.size() + desc.text2.size() + desc.text3.size() +
               desc.text4.size() + desc.text5.size() + desc.text6.size() +
               4 * (desc.list1.size() + desc.setIds.size()));
  PutU32(&blob, desc.id);
  PutU32(&blob, desc.flags);
  PutList(&blob, desc.list1);
  PutU32(&blob, desc.word1);
  PutList(&blob, desc.setIds);
  PutU32(&blob, desc.word2);
  PutU8(&blob, desc.byte1);
  PutText(&blob, desc.uri);
  PutText(&blob, desc.text1);
  PutText(&blob, desc.text2);
  PutText(&blob, desc.text3);
  PutText(&blob, desc.text4);
  PutText(&blob, desc.text5);
  PutU32(&blob, desc.word3);
  PutText(&blob, desc.text6);
  PutU8(&blob, desc.byte2);
  PutBytes(&blob, desc.block, sizeof desc.block);
  PutU8(&blob, desc.byte3);
  PutU32(&blob, desc.word4);
  PutU32(&blob, desc.word5);
  return blob;
}

bool DecodeDescription(const void* blob, unsigned long size, Metric::Description* desc) {
  BlobReader in(blob, size);
  return in.GetU32(&desc->id) && in.GetU32(&desc->flags) && in.AppendList(&desc->list1) &&
         in.GetU32(&desc->word1) && in.AppendList(&desc->setIds) && in.GetU32(&desc->word2) &&
         in.GetU8(&desc->byte1) && in.GetText(&desc->uri) && in.GetText(&desc->text1) &&
         in.GetText(&desc->text2) && in.GetText(&desc->text3) && in.GetText(&desc->text4) &&
         in.GetText(&desc->text5) && in.GetU32(&desc->word3) && in.GetText(&desc->text6) &&
         in.GetU8(&desc->byte2) && in.GetBytes(desc->block, sizeof desc->block) &&
         in.GetU8(&desc->byte3) && in.GetU32(&desc->word4) && in.GetU32(&desc->word5);
}

}  // namespace MetricsFramework
