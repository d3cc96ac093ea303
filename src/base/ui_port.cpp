#include "base/ui_port.h"

namespace tessmark {

std::string ErrorBoxText(ErrorNumber number, const std::string& module,
                         const std::string& procedure, int32_t step) {
  return std::to_string(static_cast<int32_t>(number)) + "\r" + module + "." + procedure + "\r" +
         std::to_string(step);
}

}  // namespace tessmark
