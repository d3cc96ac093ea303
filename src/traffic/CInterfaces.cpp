#include "traffic/CInterfaces.h"

namespace tessmark {

std::shared_ptr<CInterface> CInterfaces::Add(std::shared_ptr<CInterface>& Interface) {
  if (!Interface) Interface = std::make_shared<CInterface>();
  items_.push_back(std::move(Interface));
  Interface.reset();
  return items_.back();
}

std::shared_ptr<CInterface> CInterfaces::item(int32_t index) const {
  if (index < 1 || index > Count()) return nullptr;
  return items_[static_cast<size_t>(index - 1)];
}

bool CInterfaces::Remove(int32_t index) {
  if (index < 1 || index > Count()) return false;
  items_.erase(items_.begin() + (index - 1));
  return true;
}

}  // namespace tessmark
