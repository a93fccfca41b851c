// The XML message text files: finding and loading them (CLogMsgFile) and looking a text
// up in a loaded one (CLogMsgXmlFileImpl).
//
// Schema of a message file (element and attribute names are case-sensitive):
//   <EventMsg>
//     <LanguageTable> <Language locale="0x409" lang="en"/> ... </LanguageTable>
//     <Events>
//       <Event ErrorCode="0x190005">
//         <Messages lang="en">
//           <LongMsg>...</LongMsg> <ShortMsg>...</ShortMsg> <Summary>...</Summary>
//           <Cause>...</Cause> <Cause>...</Cause> <Resolution>...</Resolution> ...
//         </Messages>
//       </Event> ...
//     </Events>
//   </EventMsg>
// Several elements of one kind inside Messages are that kind's paragraphs, in order.
//
// Thread safety: Open and OpenFromText change the object and must not run while another
// thread uses it. Once a file is open, the const members (SearchMessage, LanguageName)
// may be called from several threads at the same time: each search walks its own cursor
// over the shared, read-only document.
#ifndef EM_MSGLOG_LOGMSGFILE_H
#define EM_MSGLOG_LOGMSGFILE_H

#include <cstdint>
#include <functional>
#include <string>

#include "msglog/XmlDocument.h"

// The log format in force; it chooses the message file and the record layout.
enum class LogMsgFormat { kUnified, kOldStyle };

constexpr const char* kUnifiedMessageFile = "EVENTMSG.XML";
constexpr const char* kOldStyleMessageFile = "ERRMSG.XML";

// "EVENTMSG.XML" for the unified format, "ERRMSG.XML" for the old style.
const char* MessageFileName(LogMsgFormat format);

// The text kinds (keys) of a Messages element.
constexpr const char* kKeyLongMsg = "LongMsg";
constexpr const char* kKeyShortMsg = "ShortMsg";
constexpr const char* kKeySummary = "Summary";
constexpr const char* kKeyCause = "Cause";
constexpr const char* kKeyResolution = "Resolution";

// Lookups in a loaded message document. Stateless; every function works on its own
// copy of the document's cursor, so the caller's cursor is never moved.
class CLogMsgXmlFileImpl {
 public:
  // The text of paragraph `index` (from 0) of kind `key` in the Messages element of
  // language `lang` (null: "en") of the Event whose ErrorCode equals `errorCode`.
  // ErrorCode and lang are compared ignoring case. Empty when any step finds nothing;
  // there is no fall-back to another language.
  static std::string SearchMessage(const CXmlDocument& doc, const std::string& errorCode,
                                   const char* key, const char* lang, int index);

  // The language name of the LanguageTable entry whose locale equals "0x%X" of
  // `langId`, ignoring case; "en" without a table or a match.
  static std::string LanguageName(const CXmlDocument& doc, uint32_t langId);
};

class CLogMsgFile {
 public:
  // Gives the registered directory of the message files; empty when there is none.
  using DirectoryProvider = std::function<std::string()>;

  // `currentDir` is searched first, then the directory `registeredDir` returns (by
  // default the one built from the registry, see DefaultRegisteredMessageDirectory).
  explicit CLogMsgFile(std::string currentDir = ".", DirectoryProvider registeredDir = nullptr);

  // Finds and loads the file of `format` ("EVENTMSG.XML" / "ERRMSG.XML"): in the current
  // directory first, then in the registered one. Returns true when a file was loaded.
  // Without one every search yields the empty text.
  bool Open(LogMsgFormat format);
  // Loads a message document held in memory instead (tools, tests).
  bool OpenFromText(const std::string& xml);

  bool IsOpen() const { return doc_.IsLoaded(); }
  // The path of the loaded file; empty when none is loaded or it came from memory.
  const std::string& Path() const { return path_; }
  const CXmlDocument& Document() const { return doc_; }

  // See CLogMsgXmlFileImpl. Safe to call concurrently once open.
  std::string SearchMessage(const std::string& errorCode, const char* key, const char* lang,
                            int index) const;
  std::string LanguageName(uint32_t langId) const;

 private:
  bool TryLoad(const std::string& dir, const char* fileName);

  std::string current_dir_;
  DirectoryProvider registered_dir_;
  CXmlDocument doc_;
  std::string path_;
};

// The registered message file directory, as the registry describes the installation
// (MessageFileDirectoryFromRegistry on the process-wide registry tree).
std::string DefaultRegisteredMessageDirectory();

#endif  // EM_MSGLOG_LOGMSGFILE_H
