// The exported C helpers over the platform's thread and process services.
#include <pthread.h>
#include <sched.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>

#include "kt/platform.h"

extern "C" {

void KTSleep(unsigned int ms) {
  const unsigned int us = ms * 1000u;  // taken in 32 bits, as callers expect
  usleep(us);
}

void KTYield(void) { sched_yield(); }

unsigned long KTGetCurrentThreadId(void) { return static_cast<unsigned long>(pthread_self()); }

int KTGetCurrentProcessId(void) { return static_cast<int>(getpid()); }

static int CurrentPolicy(sched_param* param) {
  int policy = SCHED_OTHER;
  sched_param ignored{};
  pthread_getschedparam(pthread_self(), &policy, param != nullptr ? param : &ignored);
  return policy;
}

int KTGetCurrentThreadPriorityMin(void) { return sched_get_priority_min(CurrentPolicy(nullptr)); }

int KTGetCurrentThreadPriorityMax(void) { return sched_get_priority_max(CurrentPolicy(nullptr)); }

int KTGetCurrentThreadPriority(void) {
  sched_param param{};
  CurrentPolicy(&param);
  return param.sched_priority;
}

bool KTSetCurrentThreadPriority(int priority) {
  sched_param param{};
  const int policy = CurrentPolicy(&param);
  param.sched_priority = priority;
  return pthread_setschedparam(pthread_self(), policy, &param) == 0;
}

int sdl_sscanf(const char* str, const char* format, ...) {
  // A missing text or format is an input that ends before anything matched:
  // EOF, as for an empty text, and no argument is touched.
  if (str == nullptr || format == nullptr) return EOF;
  va_list args;
  va_start(args, format);
  const int result = vsscanf(str, format, args);
  va_end(args);
  return result;
}

}  // extern "C"
