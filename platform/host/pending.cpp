#include "state.h"

// Stands in for the encoder and the model engine until they are linked.
namespace Ormis::host {

Leftover ReclaimEncoders() {
  return {};
}
Leftover ReclaimModels() {
  return {};
}

}  // namespace Ormis::host
