// Entities: named, reference-counted objects with a start-up and a tear-down
// reaction.
//
// Create an entity with `Zum::create<T>(args...)` (component factories such
// as `timerWheelFactory` are thin wrappers over it). `create` constructs the
// object, takes the first reference and runs `handleInitialized()` once, so
// start-up work that needs `Ptr(this)` or virtual dispatch can run there
// rather than in the constructor. When the last reference goes, `handleDel()`
// runs while the object is still whole, then it is deleted. `handleDel()` may
// make and drop temporary pointers to the object; it must not keep one.
#pragma once

#include <utility>

#include "platform/Ptr.h"
#include "platform/Types.h"

namespace Zum {

class Entity : public PtrInterface {
 public:
  const Name& name() const { return name_; }

  // Runs handleInitialized() the first time; later calls do nothing.
  void initialize();
  bool initializationDone() const { return initialized_; }

 protected:
  explicit Entity(Name name = {}) : name_(std::move(name)) {}
  ~Entity() override = default;

  virtual void handleInitialized() {}
  virtual void handleDel() {}

 private:
  void onZeroReferences() const override;

  Name name_;
  bool initialized_ = false;
};

template <class T, class... A>
Ptr<T> create(A&&... args) {
  Ptr<T> p(new T(std::forward<A>(args)...));
  p->initialize();
  return p;
}

}  // namespace Zum
