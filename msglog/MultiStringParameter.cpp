#include "msglog/MultiStringParameter.h"

#include "trace/DebugClient.h"

namespace em_oidmap {

bool ReplaceParameter(std::vector<std::string>& paragraphs, const std::string& name,
                      const std::string& value, size_t start) {
  if (start >= paragraphs.size() || name.empty()) return false;
  bool changed = false;
  for (size_t i = start; i < paragraphs.size(); ++i) {
    std::string& paragraph = paragraphs[i];
    EM_MODULE_TRACE(5, "search param \"%s\" in multi string message: [%d]: %s", name.c_str(),
                    static_cast<int>(i), paragraph.c_str());
    const size_t pos = paragraph.find(name);
    if (pos == std::string::npos) continue;
    EM_MODULE_TRACE(5, "  found message param \"%s\" in [%d]: %s", name.c_str(),
                    static_cast<int>(i), paragraph.c_str());
    if (value.empty()) {
      EM_MODULE_TRACE(4,
                      "  -> param \"%s\" is empty - remove message from multi "
                      "string",
                      name.c_str());
      paragraph.clear();
    } else {
      paragraph.replace(pos, name.size(), value);
      EM_MODULE_TRACE(5, "  -> param \"%s\" replaced by \"%s\"", name.c_str(), value.c_str());
    }
    changed = true;
  }
  return changed;
}

}  // namespace em_oidmap
