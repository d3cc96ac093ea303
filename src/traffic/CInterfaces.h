#pragma once
// CInterfaces: the ordered collection of CInterface objects that one read of the interface
// table fills. Nothing is kept between reads: each read makes a new collection of new
// objects, so an object a caller holds never changes under it.

#include <cstdint>
#include <memory>
#include <vector>

#include "traffic/CInterface.h"

namespace tessmark {

class CInterfaces {
 public:
  // Takes the caller's object into the collection and gives it back; the caller's reference
  // is left empty. An empty reference adds a fresh, empty object, as the caller's next use
  // of its variable would make one.
  std::shared_ptr<CInterface> Add(std::shared_ptr<CInterface>& Interface);
  // The object at `index`, the first at 1; empty when there is none at that place, which is
  // the caller's failure to handle.
  std::shared_ptr<CInterface> item(int32_t index) const;
  int32_t Count() const { return static_cast<int32_t>(items_.size()); }
  // False when there is no object at `index`.
  bool Remove(int32_t index);
  // The objects in order, for a range-for.
  const std::vector<std::shared_ptr<CInterface>>& NewEnum() const { return items_; }
  auto begin() const { return items_.begin(); }
  auto end() const { return items_.end(); }

 private:
  std::vector<std::shared_ptr<CInterface>> items_;
};

}  // namespace tessmark
