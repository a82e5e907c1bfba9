// -S: print label-change messages as they arrive.
#ifndef ZORV_CLI_SUBSCRIPTION_H_
#define ZORV_CLI_SUBSCRIPTION_H_

namespace zorv::cli {

/// Subscribes to `topic` (null = the empty topic) and prints every message on
/// its own flushed line until a receive fails. Never returns 0: the status is 1
/// after a refused subscription or a failed receive.
int runSubscription(const char* topic);

}  // namespace zorv::cli

#endif  // ZORV_CLI_SUBSCRIPTION_H_
