#include "labelmgr/change_bus.h"

namespace zorv::labelmgr {

void publishLabelChange(const std::string&) {}

}  // namespace zorv::labelmgr
