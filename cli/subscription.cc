#include "cli/subscription.h"

#include <cstdlib>
#include <string>

#include "cli/output.h"
#include "cli/zorvlabelmgr.h"

namespace zorv::cli {

int runSubscription(const char* topic) {
  // The handle lives until process exit; the library offers no release.
  void* subscriber = createSubscriber();
  if (subscribeLabelChangeMsg(subscriber, topic != nullptr ? topic : "") != 0) {
    printLine("subscribe file label change message error.");
    return 1;
  }
  for (;;) {
    char* message = nullptr;
    if (recvLabelChangeMsg(subscriber, &message) != 0) {
      std::free(message);  // normally still null
      break;
    }
    // "Recviced" and "recvice" are spelt as listeners' scripts expect them.
    printLine(std::string("Recviced: ") + (message != nullptr ? message : ""));
    std::free(message);
  }
  printLine("recvice file label change message error.");
  return 1;
}

}  // namespace zorv::cli
