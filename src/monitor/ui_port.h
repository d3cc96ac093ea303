#pragma once
// What the engine tells the user. The engine never touches a window: it calls this port and
// the shell shows the result on its own thread. Calls come from the engine thread.

#include <string>

namespace tessmark {

class UiPort {
 public:
  virtual ~UiPort() = default;
  // The main window's two numbers: connections seen and connections blocked.
  virtual void setIlabel(const std::string& text) = 0;
  virtual void setBLabel(const std::string& text) = 0;
  // The standard error box: a system-modal warning titled with the program's name.
  virtual void showErrorBox(const std::string& text) = 0;
};

}  // namespace tessmark
