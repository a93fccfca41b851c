// Where a finding of a scenario file stands: the line of the value or member it names.
#include <algorithm>

#include <rapidjson/reader.h>

#include "hostsim/ScenarioReader.h"

namespace em_oidmap::hostsim {
namespace {

// Finds where the value at `path` ("modules[0].rules[2]", "" for the top) starts, or
// the member `member` inside it when there is one, and gives its line (0: not found).
class PathLocator : public rapidjson::BaseReaderHandler<rapidjson::UTF8<>, PathLocator> {
 public:
  PathLocator(const std::string& path, const std::string& member,
              rapidjson::StringStream& stream)
      : path_(path), member_(path.empty() ? member : path + "." + member), stream_(stream) {}

  // The offset of the member or the value, or npos.
  size_t offset() const { return memberAt_ != std::string::npos ? memberAt_ : valueAt_; }

  bool Default() { return Scalar(); }
  bool StartObject() { return Open(false); }
  bool StartArray() { return Open(true); }
  bool EndObject(rapidjson::SizeType) { return Close(); }
  bool EndArray(rapidjson::SizeType) { return Close(); }
  bool Key(const char* text, rapidjson::SizeType length, bool) {
    key_.assign(text, length);
    // Strings are read from a copy of the stream: Tell() still gives the opening quote.
    if (memberAt_ == std::string::npos && !member_.empty() && Child() == member_) {
      memberAt_ = stream_.Tell();
    }
    return true;
  }

 private:
  struct Frame {
    std::string path;
    bool array;
    size_t next = 0;
  };
  std::string Child() {
    if (frames_.empty()) return "";
    Frame& top = frames_.back();
    if (top.array) return top.path + "[" + std::to_string(top.next) + "]";
    return top.path.empty() ? key_ : top.path + "." + key_;
  }
  bool Scalar() {
    Mark(Child(), stream_.Tell());
    if (!frames_.empty() && frames_.back().array) ++frames_.back().next;
    return true;
  }
  bool Open(bool array) {
    const std::string path = Child();
    Mark(path, stream_.Tell() - 1);  // the bracket is taken already
    if (!frames_.empty() && frames_.back().array) ++frames_.back().next;
    frames_.push_back(Frame{path, array});
    return true;
  }
  bool Close() {
    frames_.pop_back();
    return true;
  }
  void Mark(const std::string& path, size_t at) {
    if (valueAt_ == std::string::npos && path == path_) valueAt_ = at;
  }

  std::string path_, member_, key_;
  rapidjson::StringStream& stream_;
  std::vector<Frame> frames_;
  size_t valueAt_ = std::string::npos, memberAt_ = std::string::npos;
};

}  // namespace

size_t LineAt(const std::string& text, size_t offset) {
  offset = std::min(offset, text.size());
  return 1 + static_cast<size_t>(std::count(text.begin(), text.begin() + offset, '\n'));
}

size_t LineOfFinding(const std::string& text, const std::string& error) {
  std::string path = error.substr(0, error.find(' '));
  if (path == "scenario") path.clear();
  std::string member;
  const size_t quote = error.find('"');
  if (quote != std::string::npos) {
    member = error.substr(quote + 1, error.find('"', quote + 1) - quote - 1);
  }
  rapidjson::StringStream stream(text.c_str());
  PathLocator locator(path, member, stream);
  rapidjson::Reader reader;
  reader.Parse(stream, locator);
  return locator.offset() == std::string::npos ? 0 : LineAt(text, locator.offset());
}

}  // namespace em_oidmap::hostsim
