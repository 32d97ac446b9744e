// The reference-counted base.
#include <kestrel/referent.h>

namespace kestrel {

Referent::~Referent() = default;

void Referent::unref() const {
  if (--mCount == 0) delete this;
}

}  // namespace kestrel
