// How failures are reported besides their status: the composed message, and
// the switch that turns on console lines around each publisher's OnLoad.
//
// Just before an operation returns a failure it writes one composed message to
// the global Logger, in this order: LogError with the tag "Default", the status
// name, ": ", the name of the offending argument as the source spells it,
// " = ", the offending value where there is one, and the end-of-message marker.
// Every failure path is one line:
//
//   if (out == nullptr) return Fail(KT_STATUS_INVALID_ARGUMENT, "out_metricHandle");
//   if (node == nullptr) return Fail(KT_STATUS_NON_UNIQUE, "instance_name", name);
//
// The message is a side channel: it never changes a result. All of this may be
// called from any thread.
#ifndef KT_FOUNDATION_DIAGNOSTICS_H_
#define KT_FOUNDATION_DIAGNOSTICS_H_

#include "foundation/kt_string.h"
#include "foundation/logger.h"
#include "kt/status.h"

namespace MetricsFramework {

// Writes the pieces of one composed message to `sink`: "<head>: <argument> =
// <values...>" under the tag "Default", then the end marker. `head` is the
// status name, or the word a pass-through message uses instead ("status",
// "state"). Any sink with LogError and the Logger's operator<< pieces will do;
// the system's sink is GetLogger().
template <typename Sink, typename... Values>
void ComposeMessage(Sink& sink, const char* head, const char* argument, const Values&... values) {
  auto& out = sink.LogError(KTString("Default"));
  out << head << ": " << argument << " = ";
  (void)(out << ... << values);
  out << OPCODE_END_OF_MESSAGE;
}

// Keeps `argument`, the name a failure message carried, for the calling
// thread (see TakeLastFailureArgument).
void RecordFailureArgument(const char* argument);

// The argument name of the calling thread's last failure message, and forgets
// it; null when none was written since. The Logger discards the messages; the
// name is kept so that a caller (a test, a debugging host) can tell which
// argument a status was about where several share one status, since the order
// of the checks is part of an operation's contract.
const char* TakeLastFailureArgument();

// Writes the composed message for `status` to the global Logger and returns
// `status`, so that a failure path is one return statement.
template <typename... Values>
KT_STATUS Fail(KT_STATUS status, const char* argument, const Values&... values) {
  RecordFailureArgument(argument);
  ComposeMessage(GetLogger(), StatusName(status), argument, values...);
  return status;
}

// Writes one message of `pieces` under `tag` (for example "RegistryState"),
// for the few messages that are not in the composed form.
template <typename... Pieces>
void LogUnder(const char* tag, const Pieces&... pieces) {
  auto& out = GetLogger().LogError(KTString(tag));
  (void)(out << ... << pieces);
  out << OPCODE_END_OF_MESSAGE;
}

// Writes a composed message whose head is a word instead of a status name:
// "status" or "state" for a status passed through from a callee.
template <typename... Values>
KT_STATUS PassOn(KT_STATUS status, const char* word, const char* argument,
                 const Values&... values) {
  RecordFailureArgument(argument);
  ComposeMessage(GetLogger(), word, argument, values...);
  return status;
}

// True when KT_LOG_ONLOAD_CALLS_TO_CONSOLE is set and starts with '1'.
bool ConsoleTraceRequested();

}  // namespace MetricsFramework

#endif  // KT_FOUNDATION_DIAGNOSTICS_H_
