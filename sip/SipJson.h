// SipJson: the SIP message record shared by the agent host and its extension modules.
//
// A message is a JSON document {"SIP": {"V": 1, "CMD": [command, ...]}} plus a
// current-command index. Command members: "OC" opcode, "OE" opcode extension, "OI" object
// id, "CA" cabinet id, "MI" module id, "ST" status, "DA" data, "CI" correlation value.
//
// Readers never fail: a missing envelope, command or member, or a value of the wrong type,
// yields the documented default (opcode 0, status 22, numeric key 0, ...). Builders act on
// the current command and silently do nothing when it is not an object.
//
// This header and its sources depend only on RapidJSON and the standard library, so that a
// host can compile them in. Host and module pass SipJson by reference across the binary
// interface: both sides must be built from the same header.
//
// Thread safety: a SipJson is not synchronised; one thread uses a message at a time.
#ifndef EM_SIP_SIPJSON_H
#define EM_SIP_SIPJSON_H

#include <cstdint>
#include <string>
#include <vector>

#include <rapidjson/document.h>

// How the "DA" member of a command is stored.
enum class SipDataForm {
  kNone,         // "DA" absent (or null)
  kBoolean,      // true / false
  kInteger,      // a JSON integer number
  kFloat,        // a number that is only floating point
  kText,         // a JSON string
  kMultiString,  // an array whose first element is a string
  kNumberList,   // an array whose first element is a number (or an empty array)
  kRawBytes,     // an object with member "RAW": array of byte values
  kJsonStruct,   // an object without "RAW"
};

class SipJson {
 public:
  using Document = rapidjson::Document;
  using Value = rapidjson::Value;
  using Allocator = rapidjson::Document::AllocatorType;

  // Empty message: {"SIP": {"V": 1, "CMD": []}}, current index 0.
  SipJson();
  // Message with command 0 built by SetCommandHeader(oc, oe, oi, ca).
  SipJson(uint32_t oc, uint32_t oe, uint32_t oi, uint32_t ca);
  // Deep copies: document and current index.
  SipJson(const SipJson& other);
  SipJson& operator=(const SipJson& other);
  SipJson(SipJson&& other) noexcept;
  SipJson& operator=(SipJson&& other) noexcept;
  ~SipJson();

  // ---- Host API -------------------------------------------------------------------
  // Replaces the document with the parsed text. Returns false, and leaves an empty
  // message, on malformed text or a root that is not an object. Sets the index to 0.
  bool Parse(const std::string& text);
  // The whole document as compact JSON.
  std::string Serialize() const;
  int32_t CurrentIndex() const { return current_; }
  void SetCurrentIndex(int32_t index) { current_ = index; }

  // ---- Cursor and counts ------------------------------------------------------------
  // True when "SIP"/"CMD" is an array with at least one element. Sets the index to 0.
  bool HasCommands();
  // Moves to the next command when there is one; false (index unchanged) otherwise.
  bool NextCommand();
  // Number of elements of "CMD"; 0 when the envelope is not valid.
  uint32_t CommandCount() const;
  // The command at the current index, for building. Appends empty objects to "CMD" until
  // the index exists (creating "SIP"/"CMD" when missing). REQUIRES: index >= 0. With a
  // negative index, an index above kMaxCommandIndex, or an envelope member of the wrong
  // type it returns a scratch null value that is not part of the document.
  Value& CurrentCommand();
  // The command object at index, or nullptr when the path does not resolve to an object.
  const Value* Command(int32_t index) const;
  Value* Command(int32_t index);

  // ---- Readers (by command index) -----------------------------------------------------
  // "OC", read leniently (text numbers accepted); 0 when missing.
  uint32_t GetOpcode(int32_t index) const;
  // "ST" (number or text); 22 when missing or of another type.
  uint32_t GetStatus(int32_t index) const;
  // Any numeric key; 0 when missing.
  uint32_t GetKey(int32_t index, const char* key) const;
  // Any numeric key (text numbers converted); `def` when missing or of another type.
  uint32_t GetKey(int32_t index, const char* key, uint32_t def) const;
  // The data as a 32-bit value: false -> 0, true -> 1, an integer held as int32 -> it,
  // raw bytes -> little-endian value of the first (up to four) bytes. Returns false,
  // with `value` untouched, when the data has another form.
  bool GetDataValue(int32_t index, uint32_t& value) const;
  // Data length in bytes by form (every integer counts 8, a JSON struct 0). In a number
  // list, a negative or floating element counts 8 and a non-number 0; in a multi-string,
  // non-string elements count nothing.
  uint32_t GetDataLength(int32_t index) const;
  // Text of a raw-bytes payload from `start` (cut at the first NUL) or of a text payload
  // (only with start 0). A missing or null "DA" gives "" and true. Other forms: false,
  // `out` unchanged.
  bool GetDataString(int32_t index, std::string& out, uint32_t start = 0) const;
  // The data as bytes (raw bytes, multi-string, text, unsigned integer). False with an
  // empty vector for booleans, negative or floating numbers, null and JSON structs.
  bool GetDataBytes(int32_t index, std::vector<uint8_t>& out) const;
  // The strings of a multi-string payload (elements that are not strings are skipped);
  // false when the data is not one. `out` is emptied first in both cases.
  bool GetDataStrings(int32_t index, std::vector<std::string>& out) const;
  // The form of "DA" of the command at index (kNone when the command is missing).
  SipDataForm GetDataForm(int32_t index) const;
  // A JSON struct payload serialised as compact JSON text; "" for other forms.
  std::string GetDataJsonText(int32_t index) const;
  // Commands whose numeric "ST" is data-bearing (0, 12, 21, 255) and that have "DA".
  uint32_t CountCommandsWithData() const;
  // Current command: data-bearing status and a present, non-null "DA".
  bool HasData() const;
  // True when the command at index has the member.
  bool HasKey(int32_t index, const char* key) const;

  // ---- Readers on a command object --------------------------------------------------------
  // For code that reads several members of one command: resolve it once with Command()
  // and read its members without walking the envelope again. Same results as the readers
  // by index; a `command` that is not an object has no members.
  // GetKey(index, key, def) on the command itself.
  static uint32_t KeyOf(const Value& command, const char* key, uint32_t def);
  // HasKey(index, key) on the command itself.
  static bool HasKeyOf(const Value& command, const char* key);
  // The numeric members that address a command and its correlation value, each as
  // KeyOf(command, name, default) reads it (the default of ST is 22, of the others 0), and
  // which of them the command has (as HasKeyOf tells), read in one walk over its members
  // instead of one per member.
  struct Header {
    enum : uint32_t { kOc = 1, kOe = 2, kOi = 4, kCa = 8, kMi = 16, kSt = 32, kCi = 64 };
    static constexpr unsigned kCount = 7;
    uint32_t present = 0;  // bits of the members found, whatever their type
    uint32_t oc = 0;
    uint32_t oe = 0;
    uint32_t oi = 0;
    uint32_t ca = 0;
    uint32_t mi = 0;
    uint32_t st = 22;
    uint32_t ci = 0;
    // Where each member found lies among the command's members, in the order of the bits
    // (OC first), so that SetHeaderKey replaces a value without another walk; kFar for a
    // member beyond the first kFar members (SetHeaderKey then looks it up by name).
    static constexpr uint16_t kFar = 0xFFFF;
    uint16_t position[kCount] = {kFar, kFar, kFar, kFar, kFar, kFar, kFar};
  };
  static Header HeaderOf(const Value& command);

  // ---- Builders (current command) ------------------------------------------------------
  // Makes the command {"OC": oc, ["OE": oe], ["OI": oi], "CA": ca} (OE and OI omitted
  // when 0).
  void SetCommandHeader(uint32_t oc, uint32_t oe, uint32_t oi, uint32_t ca);
  void SetStatus(uint32_t status);
  // "DA" = value (a number), then "ST" = status.
  void SetDataValue(uint32_t value, uint32_t status);
  // "MI" = mid; 0 removes "MI".
  void SetModuleId(uint32_t mid);
  // Sets a numeric key of the current command; with removeIfZero, value 0 removes it.
  bool SetKey(const char* key, uint32_t value, bool removeIfZero);
  // Same on any command object of this message's document. False only when `command`
  // is not an object. `key` must outlive the document (it is stored by reference).
  bool SetKey(Value& command, const char* key, uint32_t value, bool removeIfZero);
  // SetKey(command, name, value, false) for the addressing member `which` (one of the
  // Header bits), where `header` is HeaderOf(command): the member found is replaced in
  // its place, a missing one added, without walking the members.
  // REQUIRES: no member was removed from `command`, nor this one added, since `header`
  // was read.
  bool SetHeaderKey(Value& command, const Header& header, uint32_t which, uint32_t value);
  // SetKey(command, name, 0, true) for the member `which` (a Header bit), where `header` is
  // HeaderOf(command): the member found is removed from its place without a walk, and
  // `header` is kept true of the other members (the last member takes the gap). False
  // when the header has no such member. Afterwards `header` no longer tells of `which`'s
  // value. REQUIRES: as for SetHeaderKey.
  bool RemoveHeaderKey(Value& command, Header& header, uint32_t which);
  // "DA" = {"RAW": [bytes...]} for a non-empty vector, "DA" removed for an empty one;
  // then "ST" = status.
  void SetRawData(const std::vector<uint8_t>& bytes, uint32_t status);
  // "DA" = text (copied), then "ST" = status.
  void SetDataString(const std::string& text, uint32_t status);
  // "DA" = array of strings (copied), then "ST" = status.
  void SetDataStrings(const std::vector<std::string>& strings, uint32_t status);
  // Removes a member of the current command; false when it was not there. The last
  // member takes the removed member's place.
  bool RemoveKey(const char* key);
  // Removes "DA" of the current command.
  void RemoveData() { RemoveKey("DA"); }
  // Appends a deep copy of a command object as a new last command. Returns its index.
  int32_t AppendCommand(const Value& command);

  Document& Doc() { return doc_; }
  const Document& Doc() const { return doc_; }
  Allocator& GetAllocator() { return doc_.GetAllocator(); }

  // Statuses that carry data: 0, 12, 21, 255.
  static bool IsDataBearingStatus(uint32_t status);
  // Converts a status or opcode given as text: "0x.." hex (three or more characters),
  // "0.." octal from the second character, else decimal; no sign or blanks. Parsing stops
  // at the first invalid character; a value beyond 32 bits saturates at 0xFFFFFFFF.
  // A null `text` gives 0.
  static uint32_t ParseLenientNumber(const char* text);

  // Parse rejects documents nested deeper than this (objects and arrays), so that copying,
  // serialising and destroying a hostile message cannot exhaust the stack.
  static constexpr unsigned kMaxParseDepth = 256;
  // CurrentCommand() does not extend "CMD" beyond this index (it returns a scratch null
  // value instead, on which builders do nothing), so a wild index cannot exhaust memory.
  static constexpr int32_t kMaxCommandIndex = 65535;

 private:
  // The member `key` of the command at `index`, or the shared null value when any step of
  // the path is missing or of the wrong type.
  const Value& Member(int32_t index, const char* key) const;
  // The Header bit number of a member's name, or -1 when it is no header member.
  static int HeaderSlotOf(const Value& name);
  // The "CMD" array, or nullptr when the envelope is not valid.
  const Value* CommandArray() const;
  // The "CMD" array for building: creates the envelope on a null root and "CMD" in an
  // envelope without it. nullptr when something of the wrong type is in the way.
  Value* CommandArrayForBuilding();
  // Replaces the document with {"SIP": {"V": 1, "CMD": []}}.
  void BuildEnvelope();
  // The current command if it is an object (without extending "CMD"), else nullptr.
  Value* ExistingCurrentObject();
  // Sets (replacing or adding) a member of an object of this document.
  void SetMember(Value& object, const char* key, Value&& value);

  Document doc_;
  int32_t current_ = 0;
  // Returned by CurrentCommand() when no command can be built; reset to null on each use.
  Value scratch_;
};

#endif  // EM_SIP_SIPJSON_H
