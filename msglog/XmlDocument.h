// CXmlDocument: a read-only XML document with a cursor, in the style the message text
// lookups are written in: find an element among the current level's elements, step into
// it, read its attributes and text, step out again.
//
// The cursor has a level (the element whose children are walked; at first the document
// itself) and a current element on that level (none after Reset or IntoElem).
//
// Texts are handed out as UTF-8: pugixml converts a file declared in another encoding
// (Latin-1, UTF-16) and passes the bytes of one declared UTF-8 through, so an ill-formed
// sequence in such a file is replaced here (msglog/Utf8.h).
//
// Ownership and threads: the parsed tree is immutable once loaded and is shared by copies.
// A copy has its own cursor, so several threads may walk one loaded document at the same
// time, each through its own copy. A single CXmlDocument object is not synchronised.
#ifndef EM_MSGLOG_XMLDOCUMENT_H
#define EM_MSGLOG_XMLDOCUMENT_H

#include <memory>
#include <string>

#include <pugixml.hpp>

namespace em_oidmap {

class CXmlDocument {
 public:
  // How the text is parsed. An element's leading text is kept as the element's value
  // rather than as a child node (parse_embed_pcdata): a message file is mostly elements
  // holding one text each, and half the nodes less halve the tree to build and walk.
  static constexpr unsigned int kParseOptions = pugi::parse_default | pugi::parse_embed_pcdata;

  CXmlDocument() = default;

  // Parses the file at `path`, in the encoding it declares (BOM or XML declaration;
  // UTF-8 when it declares none). Returns false for a missing, empty or malformed file
  // or one without a root element; the document is then empty and every find fails.
  bool Load(const std::string& path);
  // The same for a document held in memory (UTF-8 unless it declares otherwise).
  bool LoadFromText(const std::string& text);

  bool IsLoaded() const { return doc_ != nullptr; }
  // Describes why the last load failed; empty after a successful one.
  const std::string& LoadError() const { return load_error_; }

  // Moves the cursor to the start: the level is the document, no current element.
  void Reset();
  // Finds the next element named `name` on the current level after the current element
  // (from the first one when there is none) and makes it current. A null or empty name
  // matches any element. Returns false, leaving the cursor as it was, when none follows.
  bool FindElem(const char* name = nullptr);
  // Makes the current element the level; its children are walked next. False without
  // a current element.
  bool IntoElem();
  // Makes the level's element current again, one level up. False at the document level.
  bool OutOfElem();

  // The attribute `name` of the current element, as valid UTF-8; empty when it or the
  // element is missing.
  std::string GetAttrib(const char* name) const;
  // The current element's own text (its text and CDATA children, joined), as valid UTF-8;
  // empty when it has none or there is no current element.
  std::string GetData() const;
  // The current element's name; empty without one.
  std::string GetTagName() const;

  // The document node of the parsed tree (null when nothing is loaded), for a reader that
  // takes in the whole tree at once: the cursor's copies of names and texts would cost it
  // more than the parse itself. It stays valid while this object or a copy lives. An
  // element's text is its value (kParseOptions) followed by its text and CDATA children.
  pugi::xml_node Root() const { return doc_ ? doc_->root() : pugi::xml_node(); }

 private:
  bool Finish(const pugi::xml_parse_result& result, std::shared_ptr<pugi::xml_document> doc,
              const char* source);

  std::shared_ptr<const pugi::xml_document> doc_;
  std::string load_error_;
  pugi::xml_node level_;    // whose children are walked
  pugi::xml_node current_;  // null: before the level's first element
};

}  // namespace em_oidmap

#endif  // EM_MSGLOG_XMLDOCUMENT_H
