#include "msglog/LogMsgFile.h"

#include <strings.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <utility>

#include "msglog/Utf8.h"
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

// Whether a child node's name is an element's: the parse options (CXmlDocument::
// kParseOptions) keep elements, text and CDATA nodes, and only elements have a name. One
// accessor call instead of two (type() and name()), per node of the whole file.
bool IsElementName(const char* name) { return *name != '\0'; }

// The walk goes through the parser's buffer and its nodes in the order they were
// allocated, a few megabytes each: asking for what lies ahead overlaps the fetches with the
// work on what is at hand. A hint only, never a read.
void PrefetchAhead(const char* text, const pugi::xml_node& node) {
  constexpr size_t kAhead = 1024;
  __builtin_prefetch(text + kAhead);
  __builtin_prefetch(reinterpret_cast<const char*>(node.internal_object()) + kAhead);
}

// Two NUL-terminated names equal; written out because most differ at the first letter,
// where a library compare would first measure both.
bool SameName(const char* a, const char* b) {
  while (*a != '\0' && *a == *b) {
    ++a;
    ++b;
  }
  return *a == *b;
}

// The first element child of `node` named `name`, and the next element after `node` with
// that name, as the document's cursor finds them (FindElem); null when there is none.
// `name` is not empty, so only an element matches (IsElementName).
pugi::xml_node ChildElement(const pugi::xml_node& node, const char* name) {
  for (pugi::xml_node child = node.first_child(); child; child = child.next_sibling())
    if (SameName(child.name(), name)) return child;
  return pugi::xml_node();
}

pugi::xml_node NextElement(const pugi::xml_node& node, const char* name) {
  for (pugi::xml_node next = node.next_sibling(); next; next = next.next_sibling())
    if (SameName(next.name(), name)) return next;
  return pugi::xml_node();
}

// The ids of the first few distinct names met, found again by a compare of the raw name:
// a message file repeats a handful of element names and languages in every event, in the
// same order and often twice in a row, so the search starts at the name found last.
class RecentIds {
 public:
  template <class MakeId>
  uint32_t Id(const char* raw, MakeId makeId) {
    const size_t count = seen_.size();
    for (size_t k = 0, i = last_; k < count; ++k, i = i + 1 == count ? 0 : i + 1) {
      if (SameName(seen_[i].raw.c_str(), raw)) {
        last_ = i;
        return seen_[i].id;
      }
    }
    const uint32_t id = makeId(raw);
    if (count < kMax) {
      seen_.push_back({raw, id});
      last_ = count;
    }
    return id;
  }

 private:
  static constexpr size_t kMax = 16;
  struct Seen {
    std::string raw;
    uint32_t id;
  };
  std::vector<Seen> seen_;
  size_t last_ = 0;
};

// An attribute's value as valid UTF-8 (msglog/Utf8.h), as the document's cursor hands it
// out (GetAttrib).
std::string Attribute(const pugi::xml_node& node, const char* name) {
  std::string value = node.attribute(name).value();
  MakeValidUtf8(value);
  return value;
}

std::string JoinPath(const std::string& dir, const char* name) {
  if (dir.empty() || dir.back() == '/') return dir + name;
  return dir + "/" + name;
}

}  // namespace

const char* MessageFileName(LogMsgFormat format) {
  return format == LogMsgFormat::kUnified ? kUnifiedMessageFile : kOldStyleMessageFile;
}

CLogMsgXmlFileImpl::CLogMsgXmlFileImpl(const CXmlDocument& doc, std::string path,
                                       size_t sourceBytes)
    : path_(std::move(path)) {
  // The tree is read node by node: names and texts are taken where the parser left them,
  // not copied out first, and the names that repeat in every event are recognised by a
  // compare (RecentIds). The index is the same as a walk with the document's cursor
  // (FindElem, IntoElem, GetAttrib, GetData) builds.
  const pugi::xml_node root = ChildElement(doc.Root(), "EventMsg");
  if (!root) return;
  for (pugi::xml_node language = ChildElement(ChildElement(root, "LanguageTable"), "Language");
       language; language = NextElement(language, "Language"))
    languages_.push_back({Attribute(language, "locale"), Attribute(language, "lang")});
  const pugi::xml_node events = ChildElement(root, "Events");
  if (!events) return;
  table_.resize(8);
  RecentIds langs;
  RecentIds names;
  size_t indexedEvents = 0;
  for (pugi::xml_node event = ChildElement(events, "Event"); event;
       event = NextElement(event, "Event")) {
    if (records_.size() > kMaxIndexedChars) {
      EM_TRACE(1,
               "\nCLogMsgXmlFileImpl  : ## ERROR \"%s\" holds more text than is indexed; "
               "later events are not found",
               path_.c_str());
      break;
    }
    // The first Event of a code is the one searches find; later ones are never reached.
    const std::string code = LowerCase(Attribute(event, "ErrorCode"));
    const size_t hash = std::hash<std::string_view>()(code);
    if (FindEvent(code, hash) >= 0) continue;
    const size_t at = records_.size();
    AppendWord(static_cast<uint32_t>(code.size()));
    AppendWord(0);
    Append(code.data(), code.size());
    uint32_t messagesCount = 0;
    for (pugi::xml_node element = ChildElement(event, "Messages"); element;
         element = NextElement(element, "Messages")) {
      const size_t messagesAt = records_.size();
      AppendWord(langs.Id(element.attribute("lang").value(), [this](const char* lang) {
        std::string name = lang;
        MakeValidUtf8(name);
        return Intern(langs_, LowerCase(std::move(name)));
      }));
      AppendWord(0);
      AppendWord(0);
      uint32_t elementCount = 0;
      for (pugi::xml_node text = element.first_child(); text; text = text.next_sibling()) {
        const char* name = text.name();
        if (!IsElementName(name)) continue;
        PrefetchAhead(name, text);
        AppendWord(names.Id(name, [this](const char* tag) { return Intern(names_, tag); }));
        const size_t lengthAt = records_.size();
        AppendWord(0);
        PutWord(lengthAt, AddData(text));
        ++elementCount;
      }
      PutWord(messagesAt + 4, elementCount);
      PutWord(messagesAt + 8, static_cast<uint32_t>(records_.size() - messagesAt - 12));
      ++messagesCount;
    }
    PutWord(at + 4, messagesCount);
    AddEventSlot(hash, static_cast<uint32_t>(at), indexedEvents);
    if (++indexedEvents == 1) ReserveLike(event, sourceBytes);
  }
  // What the first event foretold may be well beyond what the rest held.
  if (records_.capacity() > records_.size() + records_.size() / 4) records_.ShrinkToFit();
}

void CLogMsgXmlFileImpl::ReserveLike(const pugi::xml_node& event, size_t sourceBytes) {
  // Events of one file are alike: the file holds about as many events as the first one's
  // span of text goes into its size (the parser knows where each node began), and room
  // for that many like the first, and an eighth more, saves growing step by step. Counting
  // the events first would cost a walk over nodes far apart.
  const ptrdiff_t first = event.offset_debug();
  const ptrdiff_t next = NextElement(event, "Event").offset_debug();
  if (first < 0 || next <= first) return;
  const size_t estimate = sourceBytes / static_cast<size_t>(next - first);
  const size_t events = estimate + estimate / 8;
  records_.Reserve(std::min(records_.size() * events, sourceBytes));
  size_t slots = table_.size();
  while (slots < 2 * events) slots *= 2;
  Rehash(slots);
}

uint32_t CLogMsgXmlFileImpl::Word(size_t at) const {
  uint32_t value = 0;
  std::memcpy(&value, records_.data() + at, sizeof(value));
  return value;
}

void CLogMsgXmlFileImpl::PutWord(size_t at, uint32_t value) {
  std::memcpy(records_.data() + at, &value, sizeof(value));
}

void CLogMsgXmlFileImpl::AppendWord(uint32_t value) { records_.Append(&value, sizeof(value)); }

void CLogMsgXmlFileImpl::Append(const char* text, size_t size) { records_.Append(text, size); }

void CLogMsgXmlFileImpl::ByteBuffer::Reallocate(size_t capacity) {
  std::unique_ptr<char[]> bytes(new char[capacity]);
  if (size_ != 0) std::memcpy(bytes.get(), bytes_.get(), size_);
  bytes_ = std::move(bytes);
  capacity_ = capacity;
}

int64_t CLogMsgXmlFileImpl::FindEvent(std::string_view code, size_t hash) const {
  if (table_.empty()) return -1;
  const size_t mask = table_.size() - 1;
  const uint32_t tag = static_cast<uint32_t>(hash >> 32);
  for (size_t i = hash & mask;; i = (i + 1) & mask) {
    const Slot& slot = table_[i];
    if (slot.offset == 0) return -1;
    if (slot.tag != tag) continue;
    const size_t at = slot.offset - 1;
    if (Word(at) == code.size() &&
        std::memcmp(records_.data() + at + 8, code.data(), code.size()) == 0)
      return static_cast<int64_t>(at);
  }
}

void CLogMsgXmlFileImpl::AddEventSlot(size_t hash, uint32_t offset, size_t events) {
  if (2 * (events + 1) > table_.size()) Rehash(2 * table_.size());
  const size_t mask = table_.size() - 1;
  size_t i = hash & mask;
  while (table_[i].offset != 0) i = (i + 1) & mask;
  table_[i] = Slot{static_cast<uint32_t>(hash >> 32), offset + 1};
}

void CLogMsgXmlFileImpl::Rehash(size_t slots) {
  if (slots <= table_.size()) return;
  std::vector<Slot> old(slots);
  old.swap(table_);
  const size_t mask = slots - 1;
  for (const Slot& slot : old) {
    if (slot.offset == 0) continue;
    const size_t at = slot.offset - 1;
    const size_t hash =
        std::hash<std::string_view>()(std::string_view(records_.data() + at + 8, Word(at)));
    size_t i = hash & mask;
    while (table_[i].offset != 0) i = (i + 1) & mask;
    table_[i] = slot;
  }
}

uint32_t CLogMsgXmlFileImpl::Intern(Ids& ids, std::string text) {
  const uint32_t next = static_cast<uint32_t>(ids.size());
  return ids.emplace(std::move(text), next).first->second;
}

uint32_t CLogMsgXmlFileImpl::AddData(const pugi::xml_node& element) {
  const size_t at = records_.size();
  // Each piece is checked where the parser left it, just read by strlen: read back from
  // the copy, the check would wait for the copy's stores to land.
  const char* value = element.value();  // the leading text (CXmlDocument::kParseOptions)
  size_t size = std::strlen(value);
  bool ascii = IsAscii(value, size);
  Append(value, size);
  for (pugi::xml_node child = element.first_child(); child; child = child.next_sibling()) {
    if (IsElementName(child.name())) continue;
    value = child.value();
    size = std::strlen(value);
    ascii = IsAscii(value, size) && ascii;
    Append(value, size);
  }
  // Handed out as valid UTF-8, as the document's cursor hands it out (GetData).
  const char* added = records_.data() + at;
  size = records_.size() - at;
  if (!ascii && !IsValidUtf8(std::string_view(added, size))) {
    std::string text(added, size);
    MakeValidUtf8(text);
    records_.Truncate(at);
    Append(text.data(), text.size());
  }
  return static_cast<uint32_t>(records_.size() - at);
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

  const std::string code = LowerCase(errorCode);
  const int64_t event = FindEvent(code, std::hash<std::string_view>()(code));
  if (event < 0) return std::string_view();
  const auto langId = langs_.find(LowerCase(lang));
  const auto nameId = names_.find(key);
  if (langId == langs_.end() || nameId == names_.end()) return std::string_view();
  size_t at = static_cast<size_t>(event);
  const uint32_t messagesCount = Word(at + 4);
  at += 8 + Word(at);
  for (uint32_t m = 0; m < messagesCount; ++m) {
    const uint32_t elementCount = Word(at + 4);
    const size_t next = at + 12 + Word(at + 8);
    if (Word(at) != langId->second) {
      at = next;
      continue;
    }
    at += 12;
    int count = 0;
    for (uint32_t e = 0; e < elementCount; ++e) {
      const uint32_t length = Word(at + 4);
      if (Word(at) == nameId->second && count++ == index)
        return std::string_view(records_.data() + at + 8, length);
      at += 8 + length;
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
    slot.doc = xml.Load(stamp.path) ? std::make_shared<const CLogMsgXmlFileImpl>(
                                          xml, stamp.path, static_cast<size_t>(stamp.size))
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
  SetCurrent(loaded ? std::make_shared<const CLogMsgXmlFileImpl>(doc, std::string(), xml.size())
                    : nullptr);
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
