#include "oidmap/PendingLongTexts.h"

#include <algorithm>

#include "oidmap/Timeouts.h"

namespace em_oidmap {

CFetchDeadline::CFetchDeadline(uint32_t budgetMs)
    : deadline_(std::chrono::steady_clock::now() + std::chrono::milliseconds(budgetMs)) {}

uint32_t CFetchDeadline::NextTimeoutMs() const {
  if (expired_) return 0;
  const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                        deadline_ - std::chrono::steady_clock::now())
                        .count();
  if (left <= 0) return 0;
  return static_cast<uint32_t>(std::min<int64_t>(left, kSingleRequestTimeoutMs));
}

size_t CPendingLongTexts::Add(const std::vector<PendingLongText>& texts, bool* queueDrain) {
  size_t refused = 0;
  CMutexLock lock(mutex_);
  for (const PendingLongText& text : texts) {
    if (keys_.count(Key(text.errorCode, text.langId)) != 0) continue;
    if (order_.size() >= kMaxPendingLongTexts) {
      ++refused;
      continue;
    }
    keys_.insert(Key(text.errorCode, text.langId));
    order_.push_back(text);
  }
  *queueDrain = !drain_queued_ && !order_.empty();
  if (*queueDrain) drain_queued_ = true;
  return refused;
}

bool CPendingLongTexts::Take(PendingLongText* text) {
  CMutexLock lock(mutex_);
  if (order_.empty()) return false;
  *text = order_.front();
  order_.pop_front();
  keys_.erase(Key(text->errorCode, text->langId));
  return true;
}

bool CPendingLongTexts::ContinueDrain() {
  CMutexLock lock(mutex_);
  drain_queued_ = !order_.empty();
  return drain_queued_;
}

void CPendingLongTexts::DrainNotQueued() {
  CMutexLock lock(mutex_);
  drain_queued_ = false;
}

size_t CPendingLongTexts::Size() const {
  CMutexLock lock(mutex_);
  return order_.size();
}

}  // namespace em_oidmap
