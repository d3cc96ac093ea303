#pragma once
// A file's mode binds root too while an object of this class lives: root passes every
// permission check by CAP_DAC_OVERRIDE and CAP_DAC_READ_SEARCH, which leave the calling
// thread's effective set here (capabilities are per thread) and come back at the end. A
// process without them is bound already, and nothing changes.

#include <linux/capability.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace tessmark::testing {

class FileModesBind {
 public:
  FileModesBind() {
    if (::syscall(SYS_capget, &header_, saved_) != 0) return;
    __user_cap_data_struct bound[2] = {saved_[0], saved_[1]};
    bound[0].effective &= ~((1u << CAP_DAC_OVERRIDE) | (1u << CAP_DAC_READ_SEARCH));
    active_ = ::syscall(SYS_capset, &header_, bound) == 0;
  }
  ~FileModesBind() {
    if (active_) ::syscall(SYS_capset, &header_, saved_);
  }
  FileModesBind(const FileModesBind&) = delete;
  FileModesBind& operator=(const FileModesBind&) = delete;

 private:
  __user_cap_header_struct header_{_LINUX_CAPABILITY_VERSION_3, 0};
  __user_cap_data_struct saved_[2]{};
  bool active_ = false;
};

}  // namespace tessmark::testing
