// Comparison of a run's output with a saved one (emhost run --expect): times masked,
// differences shown as a unified diff of lines.
#ifndef EM_TOOLS_EMHOST_EXPECT_H
#define EM_TOOLS_EMHOST_EXPECT_H

#include <string>

namespace em_oidmap::emhost {

// The text with every time ("12 ms", "0.25 s", "12:30:05") written as "<time>".
std::string MaskTimes(const std::string& text);

// "" when `expected` and `actual` are the same once times are masked, else a diff
// ("--- expectedName", "+++ actualName", then "-", "+" and " " lines around each change).
std::string DiffOutputs(const std::string& expected, const std::string& actual,
                        const std::string& expectedName, const std::string& actualName);

}  // namespace em_oidmap::emhost

#endif  // EM_TOOLS_EMHOST_EXPECT_H
