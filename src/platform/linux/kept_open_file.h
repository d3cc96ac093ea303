#pragma once
// A /proc file read on every poll through one descriptor kept open: a pread from offset 0
// makes the kernel write the file anew, and the poll pays for no open or close.

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace tessmark::platform::linux_backend {

class KeptOpenFile {
 public:
  // A failure to open is reported by read(), not thrown.
  explicit KeptOpenFile(const std::string& path);
  ~KeptOpenFile();
  KeptOpenFile(const KeptOpenFile&) = delete;
  KeptOpenFile& operator=(const KeptOpenFile&) = delete;

  // The file's text in `buffer`, whole lines only (a full buffer may have cut the last one);
  // nullopt when the file cannot be read. Does not allocate.
  std::optional<std::string_view> read(char* buffer, size_t size) const;

 private:
  int fd_ = -1;
};

}  // namespace tessmark::platform::linux_backend
