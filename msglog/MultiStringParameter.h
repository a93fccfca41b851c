// Filling a named placeholder (such as "%HD%", the help-desk text) into the paragraphs of
// a multi-string message before they are cached.
#ifndef EM_MSGLOG_MULTISTRINGPARAMETER_H
#define EM_MSGLOG_MULTISTRINGPARAMETER_H

#include <cstddef>
#include <string>
#include <vector>

namespace em_oidmap {

// The help-desk text placeholder of resolution paragraphs.
constexpr const char* kHelpDeskParameter = "%HD%";

// In each paragraph from `start` on, replaces the first occurrence of `name` (exact,
// case-sensitive) by `value`; a later occurrence in the same paragraph stays. With an
// empty `value` a paragraph that holds `name` becomes the empty string; it stays in the
// list, so the list keeps its length and indexes. Returns true when a paragraph changed;
// false at once when `start` is not below the number of paragraphs or `name` is empty.
bool ReplaceParameter(std::vector<std::string>& paragraphs, const std::string& name,
                      const std::string& value, size_t start);

}  // namespace em_oidmap

#endif  // EM_MSGLOG_MULTISTRINGPARAMETER_H
