// CTaskQueue: the circular byte buffer of one task-serializer level. It stores task-record
// references, 8 bytes each in host byte order. A push is allowed only while
// used + 8 < capacity, so a 160-byte queue holds 19 references and refuses the 20th.
//
// Thread safety: none; the serializer guards every call with its queue lock.
#ifndef EM_RUNTIME_TASKQUEUE_H
#define EM_RUNTIME_TASKQUEUE_H

#include <cstdint>
#include <memory>

namespace em_oidmap {

class CTaskQueue {
 public:
  static constexpr uint64_t kRefBytes = 8;

  // Allocates the buffer once; nothing is allocated per push.
  explicit CTaskQueue(uint64_t capacityBytes);
  CTaskQueue(const CTaskQueue&) = delete;
  CTaskQueue& operator=(const CTaskQueue&) = delete;

  bool HasRoom() const { return used_ + kRefBytes < capacity_; }
  bool HasTask() const { return used_ >= kRefBytes; }
  // Appends a reference; false (nothing changed) when there is no room.
  bool Push(uint64_t ref);
  // Takes the oldest reference; false when none is queued.
  bool Pop(uint64_t& ref);
  // Forgets every queued reference (used, read and write positions to 0).
  void Clear() { used_ = read_ = write_ = 0; }

  uint64_t UsedBytes() const { return used_; }
  uint64_t Capacity() const { return capacity_; }

 private:
  uint64_t used_ = 0;
  uint64_t read_ = 0;
  uint64_t write_ = 0;
  std::unique_ptr<uint8_t[]> buffer_;
  uint64_t capacity_;
};

}  // namespace em_oidmap

#endif  // EM_RUNTIME_TASKQUEUE_H
