// Opening a shared library on first use instead of at start-up.
//
// libzmq (with its dozen dependencies) and libcrypto cost the tool more at
// start-up than a whole label read, yet most runs never send a message or
// take a digest. Their users open them through this the first time they need
// them, so a run pays only for what it uses.
#ifndef ZORV_COMMON_SHARED_OBJECT_INTERNAL_H_
#define ZORV_COMMON_SHARED_OBJECT_INTERNAL_H_

#include <dlfcn.h>

#include <string>

class SharedObject {
 public:
  /// Opens `soname` (searched as the dynamic loader searches). A library that
  /// cannot be opened leaves the object not loaded with the loader's reason.
  /// The library stays mapped for the life of the process: libraries such as
  /// libzmq keep threads and handlers that must never lose their code.
  explicit SharedObject(const char* soname);
  SharedObject(const SharedObject&) = delete;
  SharedObject& operator=(const SharedObject&) = delete;

  /// Points `function` at the library's `name`; a missing name marks the
  /// whole object as failed, naming the symbol.
  template <typename Function>
  void resolve(Function*& function, const char* name) {
    function = reinterpret_cast<Function*>(find(name));
  }

  /// True when the library and every resolved name were found; otherwise
  /// logs (once per call) an error naming the library and the reason.
  bool ready() const;

 private:
  void* find(const char* name);

  std::string soname_;
  void* handle_ = nullptr;
  std::string error_;
};

#endif  // ZORV_COMMON_SHARED_OBJECT_INTERNAL_H_
