#include "msglog/LogMsgFile.h"

#include <strings.h>
#include <sys/stat.h>

#include <cstdio>
#include <unordered_set>
#include <utility>

#include "platform/Registry.h"
#include "platform/RegistryPaths.h"
#include "trace/DebugClient.h"

namespace em_oidmap {

namespace {

// Text offsets in the index are 32 bits wide; a message file is a few megabytes.
constexpr size_t kMaxIndexedChars = size_t{1} << 30;

bool EqualsIgnoringCase(std::string_view a, const char* b) {
  return b != nullptr && strncasecmp(a.data(), b, a.size()) == 0 && b[a.size()] == '\0';
}

bool IsRegularFile(const std::string& path) {
  struct stat st {};
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

}  // namespace

const char* MessageFileName(LogMsgFormat format) {
  return format == LogMsgFormat::kUnified ? kUnifiedMessageFile : kOldStyleMessageFile;
}

CLogMsgXmlFileImpl::CLogMsgXmlFileImpl(const CXmlDocument& doc, std::string path)
    : path_(std::move(path)) {
  CXmlDocument root(doc);
  root.Reset();
  if (!root.FindElem("EventMsg") || !root.IntoElem()) return;
  CXmlDocument table(root);
  if (table.FindElem("LanguageTable") && table.IntoElem()) {
    while (table.FindElem("Language"))
      languages_.push_back({table.GetAttrib("locale"), table.GetAttrib("lang")});
  }
  CXmlDocument walk(root);
  if (!walk.FindElem("Events") || !walk.IntoElem()) return;
  std::vector<std::pair<std::string, Event>> events;
  std::unordered_set<std::string> seen;
  while (walk.FindElem("Event")) {
    if (chars_.size() > kMaxIndexedChars) {
      EM_TRACE(1,
               "\nCLogMsgXmlFileImpl  : ## ERROR \"%s\" holds more text than is indexed; "
               "later events are not found",
               path_.c_str());
      break;
    }
    // The first Event of a code is the one searches find; later ones are never reached.
    std::string code = LowerCase(walk.GetAttrib("ErrorCode"));
    if (!seen.insert(code).second || !walk.IntoElem()) continue;
    Event event;
    event.firstMessages = static_cast<uint32_t>(messages_.size());
    while (walk.FindElem("Messages")) {
      Messages messages;
      messages.lang = Intern(langs_, LowerCase(walk.GetAttrib("lang")));
      messages.firstElement = static_cast<uint32_t>(elements_.size());
      if (walk.IntoElem()) {
        while (walk.FindElem())
          elements_.push_back({Intern(names_, walk.GetTagName()), Add(walk.GetData())});
        walk.OutOfElem();
      }
      messages.elementCount = static_cast<uint32_t>(elements_.size()) - messages.firstElement;
      messages_.push_back(messages);
      ++event.messagesCount;
    }
    walk.OutOfElem();
    events.emplace_back(std::move(code), event);
  }
  // Inserted after the walk so that the index's nodes lie together in memory.
  events_.reserve(events.size());
  for (auto& event : events) events_.emplace(std::move(event.first), event.second);
}

uint32_t CLogMsgXmlFileImpl::Intern(Ids& ids, std::string text) {
  const uint32_t next = static_cast<uint32_t>(ids.size());
  return ids.emplace(std::move(text), next).first->second;
}

CLogMsgXmlFileImpl::Text CLogMsgXmlFileImpl::Add(const std::string& text) {
  Text piece;
  piece.offset = static_cast<uint32_t>(chars_.size());
  piece.length = static_cast<uint32_t>(text.size());
  chars_ += text;
  return piece;
}

std::string CLogMsgXmlFileImpl::SearchMessage(const std::string& errorCode, const char* key,
                                              const char* lang, int index) const {
  return std::string(FindMessage(errorCode, key, lang, index));
}

std::string_view CLogMsgXmlFileImpl::FindMessage(const std::string& errorCode, const char* key,
                                                 const char* lang, int index) const {
  if (lang == nullptr) lang = "en";
  if (key == nullptr) key = "";
  EM_TRACE(4,
           "\nCLogMsgXmlFileImpl  : Search message for error code %s (Key: \"%s\" Lang: "
           "\"%s\" Index %d)",
           errorCode.c_str(), key, lang, index);
  if (index < 0 || *key == '\0') return std::string_view();

  const auto event = events_.find(LowerCase(errorCode));
  if (event == events_.end()) return std::string_view();
  const auto langId = langs_.find(LowerCase(lang));
  const auto nameId = names_.find(key);
  if (langId == langs_.end() || nameId == names_.end()) return std::string_view();
  const Messages* messages = &messages_[event->second.firstMessages];
  for (uint32_t m = 0; m < event->second.messagesCount; ++m, ++messages) {
    if (messages->lang != langId->second) continue;
    const Element* element = &elements_[messages->firstElement];
    int count = 0;
    for (uint32_t e = 0; e < messages->elementCount; ++e, ++element) {
      if (element->name == nameId->second && count++ == index) return View(element->text);
    }
    break;  // only the first Messages element of the language counts
  }
  return std::string_view();
}

std::string ErrorCodeText(uint32_t errorCode, LogMsgFormat format) {
  // Called once per log entry of a page: written by hand rather than through snprintf.
  static const char kDigits[] = "0123456789ABCDEF";
  int digits = format == LogMsgFormat::kUnified ? 6 : 4;
  while (digits < 8 && (errorCode >> (4 * digits)) != 0) ++digits;
  std::string text(2 + digits, '0');
  text[1] = 'x';
  for (int i = 0; i < digits; ++i) text[1 + digits - i] = kDigits[(errorCode >> (4 * i)) & 0xF];
  return text;
}

std::string CLogMsgXmlFileImpl::LanguageName(uint32_t langId) const {
  char locale[16];
  snprintf(locale, sizeof(locale), "0x%X", langId);
  for (const Language& language : languages_) {
    if (!EqualsIgnoringCase(language.locale, locale)) continue;
    if (!language.name.empty()) return language.name;
    break;
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
  struct stat st {};
  if (stat(stamp.path.c_str(), &st) != 0 || !S_ISREG(st.st_mode)) return nullptr;
  stamp.mtimeSec = st.st_mtim.tv_sec;
  stamp.mtimeNsec = st.st_mtim.tv_nsec;
  stamp.size = st.st_size;
  stamp.inode = st.st_ino;

  EM_TRACE(4, "\nCLogMsgFile         : Try to open file \"%s\"", stamp.path.c_str());
  if (!(slot.stamp == stamp)) {
    CXmlDocument xml;
    parse_count_.fetch_add(1, std::memory_order_relaxed);
    slot.doc = xml.Load(stamp.path) ? std::make_shared<const CLogMsgXmlFileImpl>(xml, stamp.path)
                                    : nullptr;
    slot.stamp = std::move(stamp);
  }
  EM_TRACE(4, "\nCLogMsgFile         : Event messages %s opened in \"%s\"!",
           slot.doc ? "successfully" : "not", dir.c_str());
  return slot.doc;
}

CLogMsgFile::Document CLogMsgFile::OpenDocument(LogMsgFormat format) {
  CMutexLock lock(open_mutex_);
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
  SetCurrent(loaded ? std::make_shared<const CLogMsgXmlFileImpl>(doc, std::string()) : nullptr);
  return loaded;
}

void CLogMsgFile::SetCurrent(Document doc) {
  CMutexLock lock(doc_mutex_);
  doc_ = std::move(doc);
}

CLogMsgFile::Document CLogMsgFile::CurrentDocument() const {
  CMutexLock lock(doc_mutex_);
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

}  // namespace em_oidmap
