// The records of a log page as a host reads them from the answer's data.
#ifndef EM_TESTS_SUPPORT_PAGERECORDS_H
#define EM_TESTS_SUPPORT_PAGERECORDS_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace em_oidmap::test_support {

// One answer record of a log page.
struct PageRecord {
  uint16_t shortCode = 0;
  uint8_t codeBits = 0, flags = 0;
  uint32_t order = 0;
  uint32_t sequence = 0;
  std::string text;
};

// Parses a page's data; false when a record's length does not fit the data, its text does
// not end with the NUL where the length says, or its type or reserved byte is wrong.
inline bool ParsePage(const std::vector<uint8_t>& data, std::vector<PageRecord>* records) {
  auto u16 = [&](size_t at) { return static_cast<uint16_t>(data[at] | data[at + 1] << 8); };
  auto u32 = [&](size_t at) { return static_cast<uint32_t>(u16(at) | u16(at + 2) << 16); };
  for (size_t at = 0; at < data.size();) {
    if (data.size() - at < 17) return false;
    const size_t length = u16(at);
    if (length < 17 || length > data.size() - at || data[at + length - 1] != 0 ||
        data[at + 2] != 3 || data[at + 7] != 0) {
      return false;
    }
    PageRecord record;
    record.codeBits = data[at + 3];
    record.shortCode = u16(at + 4);
    record.flags = data[at + 6];
    record.order = u32(at + 8);
    record.sequence = u32(at + 12);
    record.text.assign(reinterpret_cast<const char*>(&data[at + 16]), length - 17);
    records->push_back(std::move(record));
    at += length;
  }
  return true;
}

}  // namespace em_oidmap::test_support

#endif  // EM_TESTS_SUPPORT_PAGERECORDS_H
