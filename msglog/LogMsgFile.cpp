#include "msglog/LogMsgFile.h"

#include <strings.h>
#include <sys/stat.h>

#include <cstdio>
#include <utility>

#include "module/DebugClient.h"
#include "platform/Registry.h"
#include "platform/RegistryPaths.h"

namespace {

bool EqualsIgnoringCase(const std::string& a, const char* b) {
  return b != nullptr && strcasecmp(a.c_str(), b) == 0;
}

bool IsRegularFile(const std::string& path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode);
}

std::string LowerCase(std::string text) {
  for (char& c : text) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
  return text;
}

std::string JoinPath(const std::string& dir, const char* name) {
  if (dir.empty() || dir.back() == '/') return dir + name;
  return dir + "/" + name;
}

// Walks the current level's elements named `name` and stops on the first whose attribute
// `attr` equals `value` ignoring case.
bool FindElemWithAttrib(CXmlDocument& doc, const char* name, const char* attr,
                        const char* value) {
  while (doc.FindElem(name)) {
    if (EqualsIgnoringCase(doc.GetAttrib(attr), value)) return true;
  }
  return false;
}

}  // namespace

const char* MessageFileName(LogMsgFormat format) {
  return format == LogMsgFormat::kUnified ? kUnifiedMessageFile : kOldStyleMessageFile;
}

CLogMsgXmlFileImpl::CLogMsgXmlFileImpl(CXmlDocument doc, std::string path)
    : doc_(std::move(doc)), path_(std::move(path)) {
  CXmlDocument walk(doc_);
  walk.Reset();
  if (!walk.FindElem("EventMsg") || !walk.IntoElem()) return;
  if (!walk.FindElem("Events") || !walk.IntoElem()) return;
  while (walk.FindElem("Event")) {
    // emplace keeps an earlier Event of the same code: the first one in the file wins.
    events_.emplace(LowerCase(walk.GetAttrib("ErrorCode")), walk.GetPosition());
  }
}

std::string CLogMsgXmlFileImpl::SearchMessage(const std::string& errorCode, const char* key,
                                              const char* lang, int index) const {
  if (lang == nullptr) lang = "en";
  if (key == nullptr) key = "";
  EM_TRACE(4,
           "\nCLogMsgXmlFileImpl  : Search message for error code %s (Key: \"%s\" Lang: "
           "\"%s\" Index %d)",
           errorCode.c_str(), key, lang, index);
  if (index < 0 || *key == '\0') return std::string();

  const auto event = events_.find(LowerCase(errorCode));
  if (event == events_.end()) return std::string();
  CXmlDocument doc(doc_);  // own cursor: the shared document stays untouched
  doc.SetPosition(event->second);
  if (!doc.IntoElem()) return std::string();
  if (!FindElemWithAttrib(doc, "Messages", "lang", lang) || !doc.IntoElem())
    return std::string();
  for (int count = 0; doc.FindElem(key); ++count) {
    if (count == index) return doc.GetData();
  }
  return std::string();
}

std::string CLogMsgXmlFileImpl::LanguageName(uint32_t langId) const {
  char locale[16];
  snprintf(locale, sizeof(locale), "0x%X", langId);
  CXmlDocument doc(doc_);
  doc.Reset();
  if (doc.FindElem("EventMsg") && doc.IntoElem() && doc.FindElem("LanguageTable") &&
      doc.IntoElem() && FindElemWithAttrib(doc, "Language", "locale", locale)) {
    std::string lang = doc.GetAttrib("lang");
    if (!lang.empty()) return lang;
  }
  return "en";
}

bool CLogMsgFile::FileStamp::operator==(const FileStamp& other) const {
  return path == other.path && mtimeSec == other.mtimeSec && mtimeNsec == other.mtimeNsec &&
         size == other.size && inode == other.inode;
}

CLogMsgFile::CLogMsgFile(std::string currentDir, DirectoryProvider registeredDir)
    : current_dir_(std::move(currentDir)),
      registered_dir_(registeredDir ? std::move(registeredDir)
                                    : DirectoryProvider(DefaultRegisteredMessageDirectory)) {}

CLogMsgFile::Document CLogMsgFile::TryLoad(LoadedFile& slot, const std::string& dir,
                                           const char* fileName) {
  if (dir.empty()) return nullptr;
  FileStamp stamp;
  stamp.path = JoinPath(dir, fileName);
  struct stat st;
  if (stat(stamp.path.c_str(), &st) != 0 || !S_ISREG(st.st_mode)) return nullptr;
  stamp.mtimeSec = st.st_mtim.tv_sec;
  stamp.mtimeNsec = st.st_mtim.tv_nsec;
  stamp.size = st.st_size;
  stamp.inode = st.st_ino;

  EM_TRACE(4, "\nCLogMsgFile         : Try to open file \"%s\"", stamp.path.c_str());
  if (!(slot.stamp == stamp)) {
    CXmlDocument xml;
    parse_count_.fetch_add(1, std::memory_order_relaxed);
    slot.doc = xml.Load(stamp.path)
                   ? std::make_shared<const CLogMsgXmlFileImpl>(std::move(xml), stamp.path)
                   : nullptr;
    slot.stamp = std::move(stamp);
  }
  EM_TRACE(4, "\nCLogMsgFile         : Event messages %s opened in \"%s\"!",
           slot.doc ? "successfully" : "not", dir.c_str());
  return slot.doc;
}

CLogMsgFile::Document CLogMsgFile::OpenDocument(LogMsgFormat format) {
  std::lock_guard<std::mutex> lock(open_mutex_);
  LoadedFile* slots = loaded_[format == LogMsgFormat::kUnified ? 0 : 1];
  const char* fileName = MessageFileName(format);
  EM_TRACE(4, "\nCLogMsgFile         : Use event messages file \"%s\" for decoding", fileName);
  EM_TRACE(4, "\nCLogMsgFile         : Search for file in current directory ...");
  Document doc = TryLoad(slots[0], current_dir_, fileName);
  if (!doc) {
    EM_TRACE(4, "\nCLogMsgFile         : Search for file in registered directory ...");
    const std::string registered = registered_dir_ ? registered_dir_() : std::string();
    doc = TryLoad(slots[1], registered, fileName);
    if (!doc && (registered.empty() || !IsRegularFile(JoinPath(registered, fileName)))) {
      // Not found anywhere: say so once; texts then fall back to the raw decoding.
      EM_TRACE(4, "\nCLogMsgFile         : Event messages %s opened in \"%s\"!", "not",
               registered.c_str());
    }
  }
  SetCurrent(doc);
  return doc;
}

bool CLogMsgFile::OpenFromText(const std::string& xml) {
  CXmlDocument doc;
  parse_count_.fetch_add(1, std::memory_order_relaxed);
  const bool loaded = doc.LoadFromText(xml);
  SetCurrent(loaded ? std::make_shared<const CLogMsgXmlFileImpl>(std::move(doc), std::string())
                    : nullptr);
  return loaded;
}

void CLogMsgFile::SetCurrent(Document doc) {
  std::lock_guard<std::mutex> lock(doc_mutex_);
  doc_ = std::move(doc);
}

CLogMsgFile::Document CLogMsgFile::CurrentDocument() const {
  std::lock_guard<std::mutex> lock(doc_mutex_);
  return doc_;
}

std::string CLogMsgFile::Path() const {
  const Document doc = CurrentDocument();
  return doc ? doc->Path() : std::string();
}

std::string CLogMsgFile::SearchMessage(const std::string& errorCode, const char* key,
                                       const char* lang, int index) const {
  const Document doc = CurrentDocument();
  return doc ? doc->SearchMessage(errorCode, key, lang, index) : std::string();
}

std::string CLogMsgFile::LanguageName(uint32_t langId) const {
  const Document doc = CurrentDocument();
  return doc ? doc->LanguageName(langId) : "en";
}

std::string DefaultRegisteredMessageDirectory() {
  return MessageFileDirectoryFromRegistry(CRegistry::Default());
}
