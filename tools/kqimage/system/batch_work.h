// How the kernel shares the processors out to a program that only computes.
#ifndef KQIMAGE_SYSTEM_BATCH_WORK_H
#define KQIMAGE_SYSTEM_BATCH_WORK_H

#include <sched.h>

namespace kqimage {

// For the calling thread and those that it starts from here on: one that wakes up lets the one that
// runs go on for its time. Threads that hand each other pieces of work wake each other all the
// time, and where there are more of them than processors every second change of threads is spared.
// Whoever has chosen a class for the program keeps it.
inline void BeginBatchWork() {
  const sched_param none = {};
  if (sched_getscheduler(0) == SCHED_OTHER) sched_setscheduler(0, SCHED_BATCH, &none);
}

}  // namespace kqimage

#endif
