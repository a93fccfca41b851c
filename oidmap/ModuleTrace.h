// The module's name and the starts of its trace lines: a line feed, a tag left-aligned in
// 20 columns and ": ". They are literals, so that the words of a trace site join them at
// compile time and stay a literal that a reader can grep for:
//   OIDMAP_TRACE(2, "## Start")   writes   "\nEM_OIDMAP           : ## Start"
#ifndef EM_OIDMAP_MODULETRACE_H
#define EM_OIDMAP_MODULETRACE_H

#include <string_view>

#include "trace/DebugClient.h"

#define EM_OIDMAP_LINE "\nEM_OIDMAP           : "
#define EM_OIDMAP_MMR_LINE "\nEM_OIDMAP (MMR)     : "
#define EM_OIDMAP_REPLY_LINE "\nEM_OIDMAP (REPLY)   : "
#define EM_OIDMAP_TRANSLAT_LINE "\nEM_OIDMAP (TRANSLAT): "

// A line of the module, of its multiple-module requests, of its reply handler.
#define OIDMAP_TRACE(level, ...) EM_TRACE(level, EM_OIDMAP_LINE __VA_ARGS__)
#define MMR_TRACE(level, ...) EM_TRACE(level, EM_OIDMAP_MMR_LINE __VA_ARGS__)
#define REPLY_TRACE(level, ...) EM_TRACE(level, EM_OIDMAP_REPLY_LINE __VA_ARGS__)

namespace em_oidmap {

// The module's name: returned to the host, its trace tag and its trace configuration
// section.
constexpr const char* kModuleName = "EM_OIDMAP";
constexpr const char* kModuleDescription = "OID mapper extension module";

static_assert(std::string_view(EM_OIDMAP_LINE).substr(1, 9) == kModuleName,
              "the trace lines carry the module's name");

}  // namespace em_oidmap

#endif  // EM_OIDMAP_MODULETRACE_H
