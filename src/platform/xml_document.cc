#include "platform/xml_document.h"

#include <cstring>
#include <iterator>

#include <pugixml.hpp>

namespace {

// Escapes decoded, line ends normalised, CDATA kept. Tabs and line feeds in
// attribute values stay as they are, and a text of white space alone
// survives as an element's only content: writers that escape only the
// markup characters get back what they wrote. Text outside the root is kept
// (as a fragment's), so that Read can refuse it.
constexpr unsigned parse_options = (pugi::parse_default & ~pugi::parse_wconv_attribute) |
                                   pugi::parse_ws_pcdata_single | pugi::parse_fragment;

pugi::xml_node node(pugi::xml_node_struct* n) { return pugi::xml_node(n); }

}  // namespace

XMLDeclaration::XMLDeclaration(pugi::xml_node_struct* n) : node_(n) {
  for (pugi::xml_node child : node(n).children()) {
    if (child.type() == pugi::node_element) elements_.push_back(child.internal_object());
  }
}

XMLDeclaration XMLDeclaration::GetElement(size_t index) const { return XMLDeclaration(elements_.at(index)); }

bool XMLDeclaration::NameEqual(const char* name) const { return std::strcmp(node(node_).name(), name) == 0; }

const char* XMLDeclaration::FindAttribute(const char* name) const {
  pugi::xml_attribute a = node(node_).attribute(name);
  return a ? a.value() : nullptr;
}

std::string XMLDeclaration::GetText() const {
  std::string text;
  for (pugi::xml_node child : node(node_).children()) {
    if (child.type() == pugi::node_pcdata || child.type() == pugi::node_cdata) text += child.value();
  }
  return text;
}

XMLDocument::XMLDocument(std::string root_name) : root_name_(std::move(root_name)) {}

XMLDocument::~XMLDocument() = default;

void XMLDocument::Read(std::istream& in) {
  const std::string text{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
  if (in.bad()) throw XMLReadError("the stream failed while reading");
  auto parsed = std::make_unique<pugi::xml_document>();
  const pugi::xml_parse_result result = parsed->load_buffer(text.data(), text.size(), parse_options, pugi::encoding_utf8);
  if (!result) {
    throw XMLReadError(std::string(result.description()) + " at offset " + std::to_string(result.offset));
  }
  // The parser takes a sequence of elements, and text around them, as a
  // document; XML does not.
  pugi::xml_node root;
  for (pugi::xml_node top : parsed->children()) {
    const char* text = top.value();
    if (top.type() == pugi::node_cdata || (top.type() == pugi::node_pcdata && text[std::strspn(text, " \t\r\n")]))
      throw XMLReadError("text outside the root element");
    if (top.type() != pugi::node_element) continue;
    if (root) throw XMLReadError(std::string("a second root element '") + top.name() + "'");
    root = top;
  }
  if (std::strcmp(root.name(), root_name_.c_str()) != 0) {
    throw XMLReadError(std::string("root element '") + root.name() + "' where '" + root_name_ + "' was expected");
  }
  XMLDeclaration view(root.internal_object());
  document_ = std::move(parsed);
  static_cast<XMLDeclaration&>(*this) = std::move(view);
}
