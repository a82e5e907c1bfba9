// The listeners directory of the state directory, as publishers see it.
//
// A listener "<pid>-<16 hex digits>" owns two entries: "<name>.lock", a
// regular file it holds an flock on while it lives, and "<name>.ipc", the
// socket it binds. Nothing else belongs there, and whatever else is found
// (another name, a link, a FIFO, a lock that is no regular file) is removed
// unopened, so that nobody can make a publisher block or write elsewhere.
#ifndef ZORV_LABELMGR_LISTENER_DIR_H_
#define ZORV_LABELMGR_LISTENER_DIR_H_

#include <string>
#include <vector>

#include "labelmgr/state_files.h"

namespace zorv::labelmgr {

extern const char kListenerEndpointSuffix[];  // ".ipc"
extern const char kListenerLockSuffix[];      // ".lock"

/// A fresh listener name for this process.
std::string newListenerName();

/// True while the listener `name` holds its lock. A lock that cannot be
/// probed for want of resources counts as alive: a wrong guess costs a
/// bounded linger, a wrong removal would cut a listener off. Never blocks.
bool listenerAlive(const StateDir& dir, const std::string& name);

/// Removes the endpoint, then the lock, of the listener `name`.
void removeListener(const StateDir& dir, const std::string& name);

/// Lists `dir`, removes what is not ours and the files of dead listeners, and
/// answers the names of the live listeners that have an endpoint.
std::vector<std::string> scanListeners(const StateDir& dir);

}  // namespace zorv::labelmgr

#endif  // ZORV_LABELMGR_LISTENER_DIR_H_
