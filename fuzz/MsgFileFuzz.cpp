// Arbitrary bytes as the text of an XML message file: every lookup must come back (with
// text or empty) without crashing, give the same answer when repeated, and a language
// lookup always names some language. The same bytes then replace EVENTMSG.XML in the
// registered directory of a file object that lives across inputs: it must load the new
// file (a new inode each time) and answer as the text in memory does. Last, the document
// reader's cursor walks the same text element by element, as a reader of its own would.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>

#include "fuzz/FuzzHarness.h"
#include "msglog/LogMsgFile.h"
#include "msglog/XmlDocument.h"

using namespace em_oidmap;  // a program of its own: its names are short
using fuzz::Check;

namespace {

const char* const kCodes[] = {"0x0105", "0X0105", "0x190005", "", "0x"};
const char* const kKeys[] = {kKeyLongMsg, kKeyShortMsg, kKeyCause, "", nullptr};
const char* const kLanguages[] = {nullptr, "en", "DE", ""};
const int kIndexes[] = {-1, 0, 1, 3};
const uint32_t kLanguageIds[] = {0x409, 0x407, 0, 0xFFFFFFFFu};

// Every element below the cursor's level, depth first, its text and an attribute read.
void Walk(CXmlDocument& doc, int depth) {
  while (doc.FindElem()) {
    Check(!doc.GetTagName().empty());
    doc.GetData();
    doc.GetAttrib("Code");
    if (depth < 64 && doc.IntoElem()) {
      Walk(doc, depth + 1);
      Check(doc.OutOfElem());
    }
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz::Quiet();
  // No registered directory: only the text in memory is consulted.
  CLogMsgFile file(".", [] { return std::string(); });
  const bool open = file.OpenFromText(fuzz::Text(data, size));
  Check(open == file.IsOpen());

  for (const char* code : kCodes) {
    for (const char* key : kKeys) {
      for (const char* lang : kLanguages) {
        for (int index : kIndexes) {
          const std::string text = file.SearchMessage(code, key, lang, index);
          if (!open || index < 0 || key == nullptr || *key == '\0') Check(text.empty());
        }
      }
    }
  }
  // The search must not move a cursor that later searches depend on.
  Check(file.SearchMessage("0x0105", kKeyLongMsg, "en", 0) ==
        file.SearchMessage("0x0105", kKeyLongMsg, "en", 0));
  for (uint32_t id : kLanguageIds) Check(!file.LanguageName(id).empty());

  // Not in the current directory (it does not exist): found in the registered one.
  static const std::string dir = fuzz::TempDir("msgfile");
  static CLogMsgFile onDisk(dir + "/none", [] { return dir; });
  const std::string path = dir + "/" + kUnifiedMessageFile;
  fuzz::WriteFile(path + ".new", data, size);
  Check(rename((path + ".new").c_str(), path.c_str()) == 0);
  Check(onDisk.Open(LogMsgFormat::kUnified) == open);
  Check(onDisk.Path() == (open ? path : std::string()));
  uint32_t code = 0;
  for (size_t i = 0; i < size && i < 4; ++i) code = code << 8 | data[i];
  for (LogMsgFormat format : {LogMsgFormat::kUnified, LogMsgFormat::kOldStyle}) {
    for (const std::string& text : {ErrorCodeText(code, format), ErrorCodeText(0x0105, format)}) {
      Check(onDisk.SearchMessage(text, kKeyLongMsg, "en", 0) ==
            file.SearchMessage(text, kKeyLongMsg, "en", 0));
    }
  }
  Check(onDisk.LanguageName(0x407) == file.LanguageName(0x407));

  CXmlDocument doc;
  Check(doc.LoadFromText(fuzz::Text(data, size)) == doc.IsLoaded());
  Walk(doc, 0);
  return 0;
}
