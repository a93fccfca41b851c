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
// Loading: a file is parsed once and kept while its path, modification time, size and
// inode stay the same; each Open re-checks them with one stat and parses again only when
// one changed. Every Event is entered into an index by its ErrorCode when the file is
// loaded, so a search does not walk the Events.
//
// Thread safety: CLogMsgFile may be used from several threads at once. A loaded document
// (CLogMsgXmlFileImpl) is immutable and handed out as a shared_ptr<const>; Open swaps the
// object's current document under a mutex, so a reader that took one keeps a consistent
// document however often the file is reloaded meanwhile.
#ifndef EM_MSGLOG_LOGMSGFILE_H
#define EM_MSGLOG_LOGMSGFILE_H

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "base/Mutex.h"
#include "msglog/XmlDocument.h"

namespace em_oidmap {

// The log format in force; it chooses the message file and the record layout.
enum class LogMsgFormat { kUnified, kOldStyle };

constexpr const char* kUnifiedMessageFile = "EVENTMSG.XML";
constexpr const char* kOldStyleMessageFile = "ERRMSG.XML";

// "EVENTMSG.XML" for the unified format, "ERRMSG.XML" for the old style.
const char* MessageFileName(LogMsgFormat format);

// The ErrorCode text of `errorCode` as the file of `format` writes it: "0x" and six
// (unified) or four (old style) upper-case hexadecimal digits, more when the code needs them.
std::string ErrorCodeText(uint32_t errorCode, LogMsgFormat format);

// The text kinds (keys) of a Messages element.
constexpr const char* kKeyLongMsg = "LongMsg";
constexpr const char* kKeyShortMsg = "ShortMsg";
constexpr const char* kKeySummary = "Summary";
constexpr const char* kKeyCause = "Cause";
constexpr const char* kKeyResolution = "Resolution";

// One loaded message file, kept as an index of its texts: the first Event of each error
// code (lower-cased) with its Messages elements and their text elements in document order,
// and the LanguageTable. The parsed document itself is dropped once the index is built.
// An event's names and texts lie together in one buffer, found through one table slot, so
// a lookup touches two or three neighbouring cache lines instead of walking the tree. Immutable
// once built; every const member may be called from several threads at the same time.
class CLogMsgXmlFileImpl {
 public:
  // Indexes `doc` (which must be loaded); `path` is the file it came from (empty for a
  // document from memory).
  // `sourceBytes`: the size of the text parsed, which bounds what the index reserves ahead.
  CLogMsgXmlFileImpl(const CXmlDocument& doc, std::string path, size_t sourceBytes);

  // The text of paragraph `index` (from 0) of kind `key` in the first Messages element of
  // language `lang` (null: "en") of the first Event whose ErrorCode equals `errorCode`.
  // ErrorCode and lang are compared ignoring case. Empty when any step finds nothing;
  // there is no fall-back to another language or to a later Event or Messages element.
  std::string SearchMessage(const std::string& errorCode, const char* key, const char* lang,
                            int index) const;
  // The same text without a copy; it stays valid while this object lives.
  std::string_view FindMessage(const std::string& errorCode, const char* key, const char* lang,
                               int index) const;

  // The language name of the LanguageTable entry whose locale equals "0x%X" of
  // `langId`, ignoring case; "en" without a table or a match.
  std::string LanguageName(uint32_t langId) const;

  const std::string& Path() const { return path_; }

 private:
  struct Language {
    std::string locale;
    std::string name;
  };
  // A slot of the open-addressed table of events: the high half of the code's hash and
  // the event's offset in records_ plus 1 (0: an empty slot).
  struct Slot {
    uint32_t tag = 0;
    uint32_t offset = 0;
  };
  // A growing array of bytes whose append is one capacity test and a copy, inline: the
  // index appends a few short pieces for every element of the file.
  class ByteBuffer {
   public:
    const char* data() const { return bytes_.get(); }
    char* data() { return bytes_.get(); }
    size_t size() const { return size_; }
    size_t capacity() const { return capacity_; }
    void Append(const void* bytes, size_t count) {
      if (count > capacity_ - size_) Reallocate(std::max(count + size_, 2 * capacity_));
      std::memcpy(bytes_.get() + size_, bytes, count);
      size_ += count;
    }
    void Reserve(size_t capacity) {
      if (capacity > capacity_) Reallocate(capacity);
    }
    void ShrinkToFit() { Reallocate(size_); }
    void Truncate(size_t size) { size_ = std::min(size, size_); }

   private:
    void Reallocate(size_t capacity);
    std::unique_ptr<char[]> bytes_;
    size_t size_ = 0;
    size_t capacity_ = 0;
  };
  // Gives each distinct string a number; an event's records then hold numbers, and a
  // search compares numbers instead of reading names from memory far away.
  using Ids = std::unordered_map<std::string, uint32_t>;

  static uint32_t Intern(Ids& ids, std::string text);
  // Offset in records_ of the event of lower-cased `code`, or -1.
  int64_t FindEvent(std::string_view code, size_t hash) const;
  // Enters the event at `offset` as the table's `events`+1-th; the table doubles when it
  // would be more than half full.
  void AddEventSlot(size_t hash, uint32_t offset, size_t events);
  // Makes the table `slots` long (a power of two) when it is shorter.
  void Rehash(size_t slots);
  // Appends the element's own text (its text and CDATA children, joined) to records_;
  // returns its length.
  uint32_t AddData(const pugi::xml_node& element);
  // Makes room for as many events like `event` (the first) as a file of `sourceBytes` holds,
  // and for no more bytes than `sourceBytes` ahead.
  void ReserveLike(const pugi::xml_node& event, size_t sourceBytes);
  uint32_t Word(size_t at) const;
  void PutWord(size_t at, uint32_t value);
  void AppendWord(uint32_t value);
  void Append(const char* text, size_t size);

  std::string path_;
  // Every first Event of a code, in document order, each in one piece so that a search
  // reads a few neighbouring cache lines: its lower-cased code's length, its Messages
  // count and the code; per Messages element its language, its element count and the
  // bytes of its elements; per element its name, its text's length and the text. Every
  // number is 32 bits (PutWord).
  ByteBuffer records_;
  std::vector<Slot> table_;  // a power of two long, at most half full
  Ids names_;                // element names, as written
  Ids langs_;                // Messages languages, lower-cased
  std::vector<Language> languages_;
};

class CLogMsgFile {
 public:
  // Gives the registered directory of the message files; empty when there is none.
  using DirectoryProvider = std::function<std::string()>;
  using Document = std::shared_ptr<const CLogMsgXmlFileImpl>;

  // `currentDir` is searched first, then the directory `registeredDir` returns (by
  // default the one built from the registry, see DefaultRegisteredMessageDirectory).
  explicit CLogMsgFile(std::string currentDir = ".", DirectoryProvider registeredDir = nullptr);
  CLogMsgFile(const CLogMsgFile&) = delete;
  CLogMsgFile& operator=(const CLogMsgFile&) = delete;

  // Finds the file of `format` ("EVENTMSG.XML" / "ERRMSG.XML"): in the current directory
  // first, then in the registered one, and makes it the current document. The file is
  // parsed only when it is not the one loaded before or has changed since. Returns the
  // document, null when no file could be loaded (every search then yields the empty text).
  Document OpenDocument(LogMsgFormat format);
  // OpenDocument; true when a file was loaded.
  bool Open(LogMsgFormat format) { return OpenDocument(format) != nullptr; }
  // Loads a message document held in memory instead (tools, tests).
  bool OpenFromText(const std::string& xml);

  // The current document, null when none is loaded. It stays valid after later Opens.
  Document CurrentDocument() const;
  bool IsOpen() const { return CurrentDocument() != nullptr; }
  // The path of the current document; empty when none is loaded or it came from memory.
  std::string Path() const;
  // How many times a file or text was parsed (the cost that the reuse saves).
  uint64_t ParseCount() const { return parse_count_.load(std::memory_order_relaxed); }

  // Lookups in the current document; see CLogMsgXmlFileImpl.
  std::string SearchMessage(const std::string& errorCode, const char* key, const char* lang,
                            int index) const;
  std::string LanguageName(uint32_t langId) const;

 private:
  // What identifies one version of a file on disk.
  struct FileStamp {
    std::string path;
    int64_t mtimeSec = 0;
    int64_t mtimeNsec = 0;
    int64_t size = -1;
    uint64_t inode = 0;
    bool operator==(const FileStamp& other) const;
  };
  // The last load of one place (current or registered directory) for one format; a failed
  // parse is remembered as well, so an unchanged broken file is not parsed again either.
  struct LoadedFile {
    FileStamp stamp;
    Document doc;
  };

  Document TryLoad(LoadedFile& slot, const std::string& dir, const char* fileName)
      REQUIRES(open_mutex_);
  void SetCurrent(Document doc) EXCLUDES(doc_mutex_);

  std::string current_dir_;
  DirectoryProvider registered_dir_;
  // Serialises Open, so a changed file is parsed once. Taken before doc_mutex_.
  CMutex open_mutex_ ACQUIRED_BEFORE(doc_mutex_);
  // [format][0 = current directory, 1 = registered one]
  LoadedFile loaded_[2][2] GUARDED_BY(open_mutex_);
  mutable CMutex doc_mutex_;
  Document doc_ GUARDED_BY(doc_mutex_);
  std::atomic<uint64_t> parse_count_{0};
};

// The registered message file directory, as the registry describes the installation
// (MessageFileDirectoryFromRegistry on the process-wide registry tree).
std::string DefaultRegisteredMessageDirectory();

}  // namespace em_oidmap

#endif  // EM_MSGLOG_LOGMSGFILE_H
