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

enum class OutputFormat { kJson, kTable };

class Output {
 public:
  explicit Output(OutputFormat format) : format_(format) {}

  // A line for people: on standard output in the readable view, else on standard error.
  void Note(const std::string& text);
  // Request `number` as sent and as answered with `result` after `tookMs`; `mergedFrom`
  // holds the reply
  // commands (JSON arrays) of the broadcasts the module sent while answering it.
  void Answer(size_t number, const SipJson& request, uint32_t result, const SipJson& answer,
              long long tookMs, const std::vector<std::string>& mergedFrom);
  void Late(size_t number, const SipJson& answer);
  void LateMissing(size_t number, long long waitedSeconds);
  // A timeline event sent to the module by simulated module `mid`.
  void EventSent(uint32_t atMs, uint32_t mid, const SipJson& event);
  // A message the module handed up that answers no request of ours.
  void HandedBack(const SipJson& message);

 private:
  void Line(const std::string& text);

  const OutputFormat format_;
  std::mutex mutex_;
};

#endif  // EM_TOOLS_EMHOST_OUTPUT_H
