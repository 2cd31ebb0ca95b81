// libzmq is not built for the thread sanitizer: its lock-free queues hand
// messages between its threads with atomics the sanitizer cannot see (and
// libsodium, under CURVE, fills them on libzmq's thread), so what they do
// inside is taken on trust, in the test and in every kt-host it
// starts (which inherit TSAN_OPTIONS). Other builds ignore both.
#include <stdlib.h>

#include <string>

extern "C" const char* __tsan_default_suppressions() {
  return "called_from_lib:libzmq.so.5\nrace:libzmq.so.5\nrace:libsodium.so.23\n";
}

namespace {

const bool g_childrenSuppress = [] {
  const char* options = getenv("TSAN_OPTIONS");
  std::string value = options != nullptr ? options : "";
  value += std::string(value.empty() ? "" : ":") + "suppressions=" KT_ZMQ_TSAN_SUPPRESSIONS;
  return setenv("TSAN_OPTIONS", value.c_str(), 1) == 0;
}();

}  // namespace
