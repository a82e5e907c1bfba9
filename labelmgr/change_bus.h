// Label-change messages of our label manager library: publishing side.
#ifndef ZORV_LABELMGR_CHANGE_BUS_H_
#define ZORV_LABELMGR_CHANGE_BUS_H_

#include <string>

namespace zorv::labelmgr {

/// Publishes one label-change message ("file ..." or "pkg ...") to every
/// listener. Never throws and never fails the change: an undeliverable message
/// is logged and dropped.
void publishLabelChange(const std::string& message);

}  // namespace zorv::labelmgr

#endif  // ZORV_LABELMGR_CHANGE_BUS_H_
