// NeverDestroyed<T>: a process-wide object that lives in static storage and is never
// destroyed, so that other static destructors may still use it while the process ends.
// Unlike a leaked heap object it owns no heap block of its own, so unloading the shared
// object that holds it (dlclose) leaves nothing behind for a leak checker to report.
//
// Thread safety: construct it as a function-local static (initialised once, thread-safely).
#ifndef EM_RUNTIME_NEVERDESTROYED_H
#define EM_RUNTIME_NEVERDESTROYED_H

#include <new>
#include <utility>

namespace em_oidmap {

template <typename T>
class NeverDestroyed {
 public:
  template <typename... Args>
  explicit NeverDestroyed(Args&&... args) {
    new (storage_) T(std::forward<Args>(args)...);
  }
  NeverDestroyed(const NeverDestroyed&) = delete;
  NeverDestroyed& operator=(const NeverDestroyed&) = delete;

  T& Get() { return *std::launder(reinterpret_cast<T*>(storage_)); }

 private:
  alignas(T) unsigned char storage_[sizeof(T)] = {};
};

}  // namespace em_oidmap

#endif  // EM_RUNTIME_NEVERDESTROYED_H
