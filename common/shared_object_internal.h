// Opening a shared library on first use instead of at start-up.
//
// libzmq (with its dozen dependencies) and libcrypto cost the tool more at
// start-up than a whole label read, yet most runs never send a message or
// take a digest. Their users open them through this the first time they need
// them, so a run pays only for what it uses.
#ifndef ZORV_COMMON_SHARED_OBJECT_INTERNAL_H_
#define ZORV_COMMON_SHARED_OBJECT_INTERNAL_H_

#include <initializer_list>

/// One function a library must provide: its name, and the pointer that takes
/// its address. The pointer keeps the exact type its header declares, so a
/// mismatch is a compile error rather than a crash.
class FunctionSlot {
 public:
  template <typename Function>
  FunctionSlot(Function*& pointer, const char* name)
      : name_(name), pointer_(&pointer), store_(&storeAs<Function>) {}

  const char* name() const { return name_; }
  void store(void* address) const { store_(pointer_, address); }

 private:
  template <typename Function>
  static void storeAs(void* pointer, void* address) {
    *static_cast<Function**>(pointer) = reinterpret_cast<Function*>(address);
  }

  const char* name_;
  void* pointer_;
  void (*store_)(void* pointer, void* address);
};

/// Opens `soname` (searched as the dynamic loader searches) and points every
/// slot at its function. True when the library and every name were found;
/// otherwise logs one error naming the library and the reason (the loader's
/// own, or the first missing symbol) and returns false. The library stays
/// mapped for the life of the process: libraries such as libzmq keep threads
/// and handlers that must never lose their code. Call it once per library
/// (callers keep the outcome in a function-local static).
bool loadFunctions(const char* soname, std::initializer_list<FunctionSlot> slots);

#endif  // ZORV_COMMON_SHARED_OBJECT_INTERNAL_H_
