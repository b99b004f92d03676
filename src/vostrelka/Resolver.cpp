#include "vostrelka/Resolver.h"

namespace vostrelka {

AddressResolver::~AddressResolver() = default;

}  // namespace vostrelka
