// The boundary where the library calls into an extension. An exception that
// an extension throws must neither unwind through the library into its caller
// (a host without a handler would end) nor leave a lock of the library held.
// CallExtension runs one such call and stops whatever it throws; the caller
// turns a throw into a status and one log line naming the extension and the
// call. The library takes its locks through scoped guards, so unwinding up to
// here releases every lock taken below.
//
// No state; any thread.
#ifndef KT_CLIENT_EXTENSION_CALL_H_
#define KT_CLIENT_EXTENSION_CALL_H_

#include <exception>
#include <string>

namespace MetricsFramework {

// Runs `call`. True when it returned; false when it threw, with the text of
// what it threw in *what.
template <typename Call>
bool CallExtension(Call&& call, std::string* what) {
  try {
    call();
    return true;
  } catch (const std::exception& thrown) {
    *what = thrown.what();
  } catch (...) {
    *what = "an exception of unknown type";
  }
  return false;
}

}  // namespace MetricsFramework

#endif  // KT_CLIENT_EXTENSION_CALL_H_
