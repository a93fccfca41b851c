// The trace sink that the agent host exports under the unmangled symbol name "Debug".
// The module finds it with dlsym and calls it by vtable slot; the layout below is the
// binary contract (slots 1-2 destructor, 3 ready, 4-7 reserved, 8 unleveled line,
// 9 leveled line). The sink formats the line itself, with vsnprintf semantics.
#ifndef EM_MODULE_CIDEBUGSINK_H
#define EM_MODULE_CIDEBUGSINK_H

#include <cstdarg>

class CIDebugSink {
 public:
  virtual ~CIDebugSink() = default;
  virtual bool IsReady() = 0;                                                 // slot 3
  virtual void Reserved4() {}                                                 // slot 4
  virtual void Reserved5() {}                                                 // slot 5
  virtual void Reserved6() {}                                                 // slot 6
  virtual void Reserved7() {}                                                 // slot 7
  virtual void PrintV(const char* format, va_list args, const char* tag) = 0;  // slot 8
  virtual void TraceV(const char* format, va_list args, const char* tag) = 0;  // slot 9
};

#endif  // EM_MODULE_CIDEBUGSINK_H
