#include "platform/linux/thread_priority.h"

#include <sched.h>
#include <sys/resource.h>
#include <unistd.h>

namespace tessmark::platform::linux_backend {

bool RaiseCallingThreadPriority() {
  sched_param param{};
  param.sched_priority = sched_get_priority_min(SCHED_RR);
  // 0 names the calling thread, not the whole process.
  if (sched_setscheduler(0, SCHED_RR | SCHED_RESET_ON_FORK, &param) == 0) return true;
  return setpriority(PRIO_PROCESS, static_cast<id_t>(gettid()), -10) == 0;
}

}  // namespace tessmark::platform::linux_backend
