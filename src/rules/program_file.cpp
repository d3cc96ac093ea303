#include "rules/program_file.h"

#include <memory>

#include "platform/platform.h"

namespace tessmark {

bool ReadProgramFile(const std::string& path, size_t limit, std::string& bytes) {
  bytes.clear();
  if (path.find('\0') != std::string::npos) return false;
  platform::OpenFailure failure = platform::OpenFailure::None;
  std::unique_ptr<platform::OpenFile> file =
      platform::SystemFiles().open(path, false, false, failure);
  if (!file || file->size() < 0) return false;
  auto size = static_cast<size_t>(file->size());
  bool ok = false;
  if (size <= limit) {
    bytes.assign(size, '\0');
    ok = file->readAt(bytes.data(), size, 0);
  } else {
    size_t half = limit / 2;
    bytes.assign(2 * half, '\0');
    ok = file->readAt(bytes.data(), half, 0) &&
         file->readAt(bytes.data() + half, half, static_cast<int64_t>(size - half));
  }
  if (!ok) bytes.clear();
  return ok;
}

}  // namespace tessmark
