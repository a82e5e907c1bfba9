#include "common/shared_object_internal.h"

#include <dlfcn.h>

#include <string>

#include "log/logger.h"

bool loadFunctions(const char* soname, std::initializer_list<FunctionSlot> slots) {
  std::string error;
  void* handle = ::dlopen(soname, RTLD_NOW | RTLD_LOCAL);
  if (handle == nullptr) {
    const char* reason = ::dlerror();
    error = reason != nullptr ? reason : "cannot be opened";
  }
  for (const FunctionSlot& slot : slots) {
    void* address = handle != nullptr ? ::dlsym(handle, slot.name()) : nullptr;
    if (address == nullptr && error.empty()) error = std::string("has no symbol ") + slot.name();
    slot.store(address);
  }
  if (error.empty()) return true;
  ZLOG_ERROR("cannot use %s: %s", soname, error.c_str());
  return false;
}
