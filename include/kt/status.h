// SPDX-License-Identifier: Apache-2.0
//
// Status codes returned by every fallible operation of the framework.
//
// A status is a 32-bit unsigned value; zero is success. The values are part of
// the binary interface between modules: the numbering has gaps and must never
// be renumbered. StatusName() turns a value into the name that diagnostics
// print. Everything here is constant and may be used from any thread.
#ifndef KT_STATUS_H_
#define KT_STATUS_H_

namespace MetricsFramework {

typedef unsigned int KT_STATUS;

enum : KT_STATUS {
  KT_STATUS_SUCCESS = 0,
  KT_STATUS_INVALID_OBJECT = 2,
  KT_STATUS_INVALID_OPERATION = 4,
  KT_STATUS_DOES_NOT_EXIST = 5,
  KT_STATUS_ALREADY_EXISTS = 6,
  KT_STATUS_INVALID_ARGUMENT = 7,
  KT_STATUS_NON_UNIQUE = 8,
  KT_STATUS_LOOKUP_FAILED = 9,
  KT_STATUS_INVALID_SIZE = 10,
  KT_STATUS_OUT_OF_RESOURCES = 11,
  KT_STATUS_UNSUPPORTED_EXTENSION = 14,
  KT_STATUS_NOT_AVAILABLE = 18,
  KT_STATUS_PARTIAL_FAILURE = 20,
};

// Returns the name of `status` as diagnostics spell it ("KT_STATUS_NON_UNIQUE"),
// or null for a value that is not in the table.
inline const char* StatusName(KT_STATUS status) {
  switch (status) {
    case KT_STATUS_SUCCESS: return "KT_STATUS_SUCCESS";
    case KT_STATUS_INVALID_OBJECT: return "KT_STATUS_INVALID_OBJECT";
    case KT_STATUS_INVALID_OPERATION: return "KT_STATUS_INVALID_OPERATION";
    case KT_STATUS_DOES_NOT_EXIST: return "KT_STATUS_DOES_NOT_EXIST";
    case KT_STATUS_ALREADY_EXISTS: return "KT_STATUS_ALREADY_EXISTS";
    case KT_STATUS_INVALID_ARGUMENT: return "KT_STATUS_INVALID_ARGUMENT";
    case KT_STATUS_NON_UNIQUE: return "KT_STATUS_NON_UNIQUE";
    case KT_STATUS_LOOKUP_FAILED: return "KT_STATUS_LOOKUP_FAILED";
    case KT_STATUS_INVALID_SIZE: return "KT_STATUS_INVALID_SIZE";
    case KT_STATUS_OUT_OF_RESOURCES: return "KT_STATUS_OUT_OF_RESOURCES";
    case KT_STATUS_UNSUPPORTED_EXTENSION: return "KT_STATUS_UNSUPPORTED_EXTENSION";
    case KT_STATUS_NOT_AVAILABLE: return "KT_STATUS_NOT_AVAILABLE";
    case KT_STATUS_PARTIAL_FAILURE: return "KT_STATUS_PARTIAL_FAILURE";
  }
  return nullptr;
}

}  // namespace MetricsFramework

#endif  // KT_STATUS_H_
