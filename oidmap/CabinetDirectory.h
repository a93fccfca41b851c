// CCabinetDirectory: what the module knows of the server it runs in. The cabinet list (the
// server's own cabinet and at most 99 SE cabinets, as the host enumerates them), the SEL
// languages the lower modules support, the help-desk text of the configuration space, and
// whether the identification module is missing (the KTAS fallback).
//
// Threads: start fills the cabinet list and the help-desk text, the re-scan the cabinet
// list, the fallback flag and the languages, both on a host thread; request threads and
// the worker read them.
// Locks: one mutex each for the cabinet list, the languages and the help-desk text. Each is
// a leaf, held only to copy a value in or out, never while a request is sent. The fallback
// flag is an atomic: one word, written by the re-scan alone.
#ifndef EM_OIDMAP_CABINETDIRECTORY_H
#define EM_OIDMAP_CABINETDIRECTORY_H

#include <array>
#include <atomic>
#include <cstdint>
#include <set>
#include <string>
#include <vector>

#include "base/Mutex.h"
#include "oidmap/HostLink.h"

namespace em_oidmap {

// The cabinet list holds at most this many cabinets: the server's and 99 SE cabinets.
constexpr int32_t kMaxCabinets = 100;

class CCabinetDirectory {
 public:
  explicit CCabinetDirectory(const CHostLink& host) : host_(host) {}
  CCabinetDirectory(const CCabinetDirectory&) = delete;
  CCabinetDirectory& operator=(const CCabinetDirectory&) = delete;

  // Builds the list anew from the host's enumeration of the server cabinet's SE cabinets;
  // more than 99 are cut with an error trace.
  void BuildCabinetList() EXCLUDES(cabinet_mutex_);
  std::vector<uint32_t> CabinetList() const EXCLUDES(cabinet_mutex_);
  bool IsKnownCabinet(uint32_t cabinet) const EXCLUDES(cabinet_mutex_);

  // Reads the help-desk text (configuration value 0x211); an answer without text keeps
  // the one read before.
  void ReadHelpDeskMessage() EXCLUDES(help_desk_mutex_);
  std::string HelpDeskMessage() const EXCLUDES(help_desk_mutex_);

  // Asks whether the identification module is there (OC 0x0B18). The fallback is on when
  // it is not, or when it answers 1.
  void ProbeIdentModule();
  bool IsKtasFallback() const { return ktas_fallback_.load(std::memory_order_acquire); }

  // Reads the supported SEL languages (OC 0x0B20): the set becomes what this answer lists.
  void ReadSelLanguages() EXCLUDES(language_mutex_);
  std::set<uint16_t> SupportedSelLanguages() const EXCLUDES(language_mutex_);
  bool IsSupportedSelLanguage(uint16_t langId) const EXCLUDES(language_mutex_);

 private:
  // Sends `oc` alone (no OE, no OI) about the server's cabinet and returns the answer.
  SipJson AskServerCabinet(uint32_t oc) const;

  const CHostLink& host_;

  mutable CMutex cabinet_mutex_;
  std::array<uint32_t, kMaxCabinets> cabinets_ GUARDED_BY(cabinet_mutex_){};
  int32_t cabinet_count_ GUARDED_BY(cabinet_mutex_) = 1;

  mutable CMutex language_mutex_;
  std::set<uint16_t> sel_languages_ GUARDED_BY(language_mutex_);

  mutable CMutex help_desk_mutex_;
  std::string help_desk_message_ GUARDED_BY(help_desk_mutex_);

  std::atomic<bool> ktas_fallback_{false};
};

}  // namespace em_oidmap

#endif  // EM_OIDMAP_CABINETDIRECTORY_H
