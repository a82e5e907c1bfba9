#include "common/shared_object_internal.h"

#include "log/logger.h"

SharedObject::SharedObject(const char* soname) : soname_(soname) {
  handle_ = ::dlopen(soname, RTLD_NOW | RTLD_LOCAL);
  if (handle_ == nullptr) {
    const char* reason = ::dlerror();
    error_ = reason != nullptr ? reason : "cannot be opened";
  }
}

void* SharedObject::find(const char* name) {
  if (handle_ == nullptr) return nullptr;
  void* address = ::dlsym(handle_, name);
  if (address == nullptr && error_.empty()) error_ = std::string("has no symbol ") + name;
  return address;
}

bool SharedObject::ready() const {
  if (error_.empty()) return true;
  ZLOG_ERROR("cannot use %s: %s", soname_.c_str(), error_.c_str());
  return false;
}
