#include "msglog/XmlDocument.h"

#include <cstring>

#include "msglog/Utf8.h"
#include "trace/DebugClient.h"

namespace em_oidmap {

namespace {

bool IsText(const pugi::xml_node& node) {
  return node.type() == pugi::node_pcdata || node.type() == pugi::node_cdata;
}

}  // namespace

bool CXmlDocument::Load(const std::string& path) {
  auto doc = std::make_shared<pugi::xml_document>();
  pugi::xml_parse_result result = doc->load_file(path.c_str(), kParseOptions, pugi::encoding_auto);
  return Finish(result, std::move(doc), path.c_str());
}

bool CXmlDocument::LoadFromText(const std::string& text) {
  auto doc = std::make_shared<pugi::xml_document>();
  pugi::xml_parse_result result =
      doc->load_buffer(text.data(), text.size(), kParseOptions, pugi::encoding_auto);
  return Finish(result, std::move(doc), "<memory>");
}

bool CXmlDocument::Finish(const pugi::xml_parse_result& result,
                          std::shared_ptr<pugi::xml_document> doc, const char* source) {
  // pugixml accepts a document of bare text without any element; a message file without
  // a root element is as useless as a malformed one.
  if (result && !doc->document_element()) {
    load_error_ = "no root element";
  } else if (!result) {
    load_error_ = result.description();
  } else {
    load_error_.clear();
  }
  if (!load_error_.empty()) {
    EM_TRACE(2, "\nCXmlDocument        : ## ERROR loading \"%s\": %s (offset %ld)", source,
             load_error_.c_str(), static_cast<long>(result.offset));
    doc_.reset();
  } else {
    doc_ = std::move(doc);
  }
  Reset();
  return doc_ != nullptr;
}

void CXmlDocument::Reset() {
  level_ = doc_ ? doc_->root() : pugi::xml_node();
  current_ = pugi::xml_node();
}

bool CXmlDocument::FindElem(const char* name) {
  if (!level_) return false;
  pugi::xml_node node = current_ ? current_.next_sibling() : level_.first_child();
  const bool any = name == nullptr || *name == '\0';
  for (; node; node = node.next_sibling()) {
    if (node.type() != pugi::node_element) continue;
    if (any || std::strcmp(node.name(), name) == 0) {
      current_ = node;
      return true;
    }
  }
  return false;
}

bool CXmlDocument::IntoElem() {
  if (!current_) return false;
  level_ = current_;
  current_ = pugi::xml_node();
  return true;
}

bool CXmlDocument::OutOfElem() {
  if (!level_ || level_.type() == pugi::node_document) return false;
  current_ = level_;
  level_ = level_.parent();
  return true;
}

std::string CXmlDocument::GetAttrib(const char* name) const {
  if (!current_ || name == nullptr) return std::string();
  std::string value = current_.attribute(name).value();
  MakeValidUtf8(value);
  return value;
}

std::string CXmlDocument::GetData() const {
  std::string text;
  if (!current_) return text;
  text = current_.value();  // the leading text (kParseOptions)
  for (pugi::xml_node child = current_.first_child(); child; child = child.next_sibling()) {
    if (IsText(child)) text += child.value();
  }
  MakeValidUtf8(text);
  return text;
}

std::string CXmlDocument::GetTagName() const {
  return current_ ? std::string(current_.name()) : std::string();
}

}  // namespace em_oidmap
