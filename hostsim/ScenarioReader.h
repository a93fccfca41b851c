// The pieces a scenario file is read with (hostsim/Scenario.cpp): a reader of one JSON
// object that notes what is wrong with it, the log record readers, and the line of a
// finding. Internal to hostsim.
#ifndef EM_HOSTSIM_SCENARIOREADER_H
#define EM_HOSTSIM_SCENARIOREADER_H

#include <cstdint>
#include <initializer_list>
#include <optional>
#include <string>
#include <vector>

#include <rapidjson/document.h>

#include "hostsim/SimLog.h"

namespace em_oidmap::hostsim {

// Reads the members of one JSON object. Its first error is added to the shared list as
// "PATH what" and ends the reading of this object (every later read gives defaults); the
// objects beside it are read on, so that one run finds every error. Numbers are JSON
// unsigned numbers or text: "0x" followed by hexadecimal digits, or decimal digits.
class ObjectReader {
 public:
  ObjectReader(const rapidjson::Value& object, std::string where,
               std::vector<std::string>& errors);

  bool ok() const { return !failed_; }
  const std::string& where() const { return where_; }

  // Fails on members outside `known`: a misspelt key would otherwise be ignored silently.
  void AllowOnly(std::initializer_list<const char*> known);
  const rapidjson::Value* Find(const char* key) const;
  std::optional<uint32_t> OptionalNumber(const char* key);
  uint32_t Number(const char* key, uint32_t def) { return OptionalNumber(key).value_or(def); }
  uint32_t RequiredNumber(const char* key);
  // A number that must fit `bits` bits.
  uint32_t NarrowNumber(const char* key, uint32_t def, int bits);
  // An array member (missing: nullptr, no error).
  const rapidjson::Value* Array(const char* key);
  // A boolean member (missing: `def`).
  bool Bool(const char* key, bool def);
  // Any JSON value as text; "" when missing.
  std::string Json(const char* key);
  void Fail(const std::string& what);

  static bool ToNumber(const rapidjson::Value& value, uint32_t& out);

 private:
  const rapidjson::Value& object_;
  std::string where_;
  std::vector<std::string>& errors_;
  bool failed_ = false;
};

// "list[i]".
std::string Where(const char* list, rapidjson::SizeType i);

// The records of a module's log, and of a log event.
bool ReadOldStyleRecord(ObjectReader& item, SimOldStyleRecord& record);
bool ReadUnifiedRecord(ObjectReader& item, SimUnifiedRecord& record);

// The line (1-based) of text offset `offset`.
size_t LineAt(const std::string& text, size_t offset);
// The line of the member a finding names: its text starts with the path of the object
// ("scenario" for the top), and a member it names in quotes is looked for inside it.
// 0 when it is not found.
size_t LineOfFinding(const std::string& text, const std::string& finding);

}  // namespace em_oidmap::hostsim

#endif  // EM_HOSTSIM_SCENARIOREADER_H
