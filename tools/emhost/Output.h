// How emhost shows what happens: one JSON line per answer, late answer and event (for
// programs), or a readable view (for people). Every member may be called from any thread;
// lines never interleave.
#ifndef EM_TOOLS_EMHOST_OUTPUT_H
#define EM_TOOLS_EMHOST_OUTPUT_H

#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include "sip/SipJson.h"

namespace em_oidmap::emhost {

enum class OutputFormat { kJson, kTable };

// One request and how the module answered it.
struct AnswerView {
  size_t number = 0;
  const SipJson* request = nullptr;  // as sent
  uint32_t result = 0;
  const SipJson* answer = nullptr;   // the message as the module left it
  long long tookMs = 0;
  // The reply commands (JSON arrays) of the broadcasts the module sent while answering.
  std::vector<std::string> mergedFrom;
  std::string hint;  // for the readable view; "" without one
};

class Output {
 public:
  explicit Output(OutputFormat format) : format_(format) {}

  // Lines that would go to standard output are appended to `text` instead (nullptr:
  // printed again).
  void CollectInto(std::string* text);
  // A line for people: on standard output in the readable view, else on standard error.
  void Note(const std::string& text);
  void Answer(const AnswerView& view);
  void Late(size_t number, const SipJson& answer);
  void LateMissing(size_t number, long long waitedMs);
  // An event sent to the module by simulated module `mid`; `updatesModule`: that module
  // answers so from now on.
  void EventSent(uint32_t atMs, uint32_t mid, const SipJson& event, bool updatesModule);
  // A message the module handed up that answers no request of ours.
  void HandedBack(const SipJson& message);

 private:
  void Line(const std::string& text);

  const OutputFormat format_;
  std::mutex mutex_;
  std::string* collected_ = nullptr;
};

}  // namespace em_oidmap::emhost

#endif  // EM_TOOLS_EMHOST_OUTPUT_H
