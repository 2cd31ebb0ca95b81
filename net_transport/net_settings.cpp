#include "net_transport/net_settings.h"

#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace kt_net {

using MetricsFramework::KT_STATUS;
using MetricsFramework::KT_STATUS_INVALID_ARGUMENT;
using MetricsFramework::KT_STATUS_SUCCESS;

namespace {

KT_STATUS Refuse(std::string* error, const std::string& why) {
  *error = why;
  return KT_STATUS_INVALID_ARGUMENT;
}

// The two transports the module speaks; anything else is refused here rather
// than by the engine later, on its own thread.
KT_STATUS Endpoint(std::vector<std::string>& list, const char* value, std::string* error) {
  const std::string endpoint = value;
  if (endpoint.empty()) {  // forgets the endpoints given so far
    list.clear();
    return KT_STATUS_SUCCESS;
  }
  if (endpoint.rfind("tcp://", 0) != 0 && endpoint.rfind("ipc://", 0) != 0) {
    return Refuse(error, "endpoint must start with tcp:// or ipc://: " + endpoint);
  }
  if (endpoint.size() <= 6) return Refuse(error, "endpoint has no address: " + endpoint);
  list.push_back(endpoint);
  return KT_STATUS_SUCCESS;
}

KT_STATUS Milliseconds(uint32_t* out, const char* value, std::string* error) {
  char* end = nullptr;
  errno = 0;
  const unsigned long ms = std::strtoul(value, &end, 10);
  if (errno != 0 || end == value || *end != '\0' || value[0] == '-' || ms == 0 || ms > 3600000) {
    return Refuse(error, std::string("not a number of milliseconds from 1 to 3600000: ") + value);
  }
  *out = static_cast<uint32_t>(ms);
  return KT_STATUS_SUCCESS;
}

template <typename Enum, size_t N>
KT_STATUS Choice(Enum* out, const char* value, const std::pair<const char*, Enum> (&choices)[N],
                 std::string* error) {
  std::string known;
  for (const auto& [word, choice] : choices) {
    if (std::strcmp(word, value) == 0) {
      *out = choice;
      return KT_STATUS_SUCCESS;
    }
    known += known.empty() ? word : std::string("|") + word;
  }
  return Refuse(error, std::string("not one of ") + known + ": " + value);
}

const std::pair<const char*, ServePolicy> kServeChoices[] = {{"none", ServePolicy::kNone},
                                                             {"browse", ServePolicy::kBrowse},
                                                             {"subscribe", ServePolicy::kSubscribe},
                                                             {"full", ServePolicy::kFull}};
const std::pair<const char*, MountPolicy> kMountChoices[] = {{"dialled", MountPolicy::kDialled},
                                                             {"accepted", MountPolicy::kAccepted},
                                                             {"all", MountPolicy::kAll},
                                                             {"none", MountPolicy::kNone}};

// One row per key. A new key is a new row; its setter sees the settings as
// they stand and refuses a value by returning KT_STATUS_INVALID_ARGUMENT.
struct Key {
  const char* name;
  KT_STATUS (*set)(NetSettings& s, const char* value, std::string* error);
};

const Key kKeys[] = {
    {"listen", [](NetSettings& s, const char* v, std::string* e) { return Endpoint(s.listen, v, e); }},
    {"connect", [](NetSettings& s, const char* v, std::string* e) { return Endpoint(s.connect, v, e); }},
    {"serve", [](NetSettings& s, const char* v, std::string* e) { return Choice(&s.serve, v, kServeChoices, e); }},
    {"mount", [](NetSettings& s, const char* v, std::string* e) { return Choice(&s.mount, v, kMountChoices, e); }},
    {"name",
     [](NetSettings& s, const char* v, std::string* e) -> KT_STATUS {
       if (std::strlen(v) > 255) return Refuse(e, "name longer than 255 bytes");
       s.name = v;
       return KT_STATUS_SUCCESS;
     }},
    {"deadline-ms",
     [](NetSettings& s, const char* v, std::string* e) -> KT_STATUS {
       uint32_t ms = 0;
       if (Milliseconds(&ms, v, e) != KT_STATUS_SUCCESS) return KT_STATUS_INVALID_ARGUMENT;
       if (ms >= s.graceMs) return Refuse(e, "deadline-ms must be below grace-ms");
       s.deadlineMs = ms;
       return KT_STATUS_SUCCESS;
     }},
    {"heartbeat-ms", [](NetSettings& s, const char* v, std::string* e) { return Milliseconds(&s.heartbeatMs, v, e); }},
    {"grace-ms",
     [](NetSettings& s, const char* v, std::string* e) -> KT_STATUS {
       uint32_t ms = 0;
       if (Milliseconds(&ms, v, e) != KT_STATUS_SUCCESS) return KT_STATUS_INVALID_ARGUMENT;
       if (ms <= s.deadlineMs) return Refuse(e, "grace-ms must exceed deadline-ms");
       s.graceMs = ms;
       return KT_STATUS_SUCCESS;
     }},
};

}  // namespace

std::string NetSettings::OfferedName() const {
  if (!name.empty()) return name;
  char host[256] = {};
  if (gethostname(host, sizeof host - 1) != 0 || host[0] == '\0') std::strcpy(host, "host");
  return std::string(host) + "-" + std::to_string(getpid());
}

KT_STATUS ApplySetting(NetSettings& settings, const char* key, const char* value,
                       std::string* error) {
  if (key == nullptr) return Refuse(error, "no key");
  if (value == nullptr) return Refuse(error, std::string("no value for ") + key);
  for (const Key& row : kKeys) {
    if (std::strcmp(row.name, key) == 0) return row.set(settings, value, error);
  }
  if (CurveConfig::IsCurveKey(key)) return settings.curve.Set(key, value, error);
  return Refuse(error, std::string("unknown key: ") + key);
}

}  // namespace kt_net
