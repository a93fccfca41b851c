#include "runtime/TaskQueue.h"

#include <cstring>

namespace em_oidmap {

CTaskQueue::CTaskQueue(uint64_t capacityBytes)
    : buffer_(new uint8_t[capacityBytes > 0 ? capacityBytes : 1]()), capacity_(capacityBytes) {}

// Byte by byte, wrapping at the capacity, so capacities that are not a multiple of 8 work.
bool CTaskQueue::Push(uint64_t ref) {
  if (!HasRoom()) return false;
  uint8_t bytes[kRefBytes];
  memcpy(bytes, &ref, sizeof bytes);
  for (uint8_t byte : bytes) {
    if (write_ == capacity_) write_ = 0;
    buffer_[write_++] = byte;
  }
  used_ += kRefBytes;
  return true;
}

bool CTaskQueue::Pop(uint64_t& ref) {
  if (!HasTask()) return false;
  uint8_t bytes[kRefBytes];
  for (uint8_t& byte : bytes) {
    if (read_ == capacity_) read_ = 0;
    byte = buffer_[read_++];
  }
  used_ -= kRefBytes;
  memcpy(&ref, bytes, sizeof bytes);
  return true;
}

}  // namespace em_oidmap
