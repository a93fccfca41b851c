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

std::string CLogMsgXmlFileImpl::SearchMessage(const CXmlDocument& document,
                                              const std::string& errorCode, const char* key,
                                              const char* lang, int index) {
  if (lang == nullptr) lang = "en";
  if (key == nullptr) key = "";
  EM_TRACE(4,
           "\nCLogMsgXmlFileImpl  : Search message for error code %s (Key: \"%s\" Lang: "
           "\"%s\" Index %d)",
           errorCode.c_str(), key, lang, index);
  if (index < 0 || *key == '\0') return std::string();

  CXmlDocument doc(document);  // own cursor: the shared document stays untouched
  doc.Reset();
  if (!doc.FindElem("EventMsg") || !doc.IntoElem()) return std::string();
  if (!doc.FindElem("Events") || !doc.IntoElem()) return std::string();
  if (!FindElemWithAttrib(doc, "Event", "ErrorCode", errorCode.c_str()) || !doc.IntoElem())
    return std::string();
  if (!FindElemWithAttrib(doc, "Messages", "lang", lang) || !doc.IntoElem())
    return std::string();
  for (int count = 0; doc.FindElem(key); ++count) {
    if (count == index) return doc.GetData();
  }
  return std::string();
}

std::string CLogMsgXmlFileImpl::LanguageName(const CXmlDocument& document, uint32_t langId) {
  char locale[16];
  snprintf(locale, sizeof(locale), "0x%X", langId);
  CXmlDocument doc(document);
  doc.Reset();
  if (doc.FindElem("EventMsg") && doc.IntoElem() && doc.FindElem("LanguageTable") &&
      doc.IntoElem() && FindElemWithAttrib(doc, "Language", "locale", locale)) {
    std::string lang = doc.GetAttrib("lang");
    if (!lang.empty()) return lang;
  }
  return "en";
}

CLogMsgFile::CLogMsgFile(std::string currentDir, DirectoryProvider registeredDir)
    : current_dir_(std::move(currentDir)),
      registered_dir_(registeredDir ? std::move(registeredDir)
                                    : DirectoryProvider(DefaultRegisteredMessageDirectory)) {}

bool CLogMsgFile::TryLoad(const std::string& dir, const char* fileName) {
  if (dir.empty()) return false;
  const std::string path = JoinPath(dir, fileName);
  if (!IsRegularFile(path)) return false;
  EM_TRACE(4, "\nCLogMsgFile         : Try to open file \"%s\"", path.c_str());
  const bool loaded = doc_.Load(path);
  EM_TRACE(4, "\nCLogMsgFile         : Event messages %s opened in \"%s\"!",
           loaded ? "successfully" : "not", dir.c_str());
  if (loaded) path_ = path;
  return loaded;
}

bool CLogMsgFile::Open(LogMsgFormat format) {
  const char* fileName = MessageFileName(format);
  doc_ = CXmlDocument();
  path_.clear();
  EM_TRACE(4, "\nCLogMsgFile         : Use event messages file \"%s\" for decoding", fileName);
  EM_TRACE(4, "\nCLogMsgFile         : Search for file in current directory ...");
  if (TryLoad(current_dir_, fileName)) return true;

  EM_TRACE(4, "\nCLogMsgFile         : Search for file in registered directory ...");
  const std::string registered = registered_dir_ ? registered_dir_() : std::string();
  if (TryLoad(registered, fileName)) return true;
  if (registered.empty() || !IsRegularFile(JoinPath(registered, fileName))) {
    // Not found anywhere: say so once; texts then fall back to the raw decoding.
    EM_TRACE(4, "\nCLogMsgFile         : Event messages %s opened in \"%s\"!", "not",
             registered.c_str());
  }
  return false;
}

bool CLogMsgFile::OpenFromText(const std::string& xml) {
  path_.clear();
  return doc_.LoadFromText(xml);
}

std::string CLogMsgFile::SearchMessage(const std::string& errorCode, const char* key,
                                       const char* lang, int index) const {
  return CLogMsgXmlFileImpl::SearchMessage(doc_, errorCode, key, lang, index);
}

std::string CLogMsgFile::LanguageName(uint32_t langId) const {
  return CLogMsgXmlFileImpl::LanguageName(doc_, langId);
}

std::string DefaultRegisteredMessageDirectory() {
  return MessageFileDirectoryFromRegistry(CRegistry::Default());
}
