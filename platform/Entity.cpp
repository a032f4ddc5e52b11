#include "platform/Entity.h"

#include "platform/Exception.h"

namespace Zum {

void Entity::initialize() {
  if (initialized_) return;
  initialized_ = true;
  handleInitialized();
}

void Entity::onZeroReferences() const {
  // Hold one reference across handleDel() so temporary pointers made there
  // cannot drive the count to zero a second time.
  auto* self = const_cast<Entity*>(this);
  newRef();
  self->handleDel();
  ZUM_ASSERT(references() == 1);
  delete self;
}

}  // namespace Zum
