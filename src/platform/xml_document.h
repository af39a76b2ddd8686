// XML reader of the agent's class library, over pugixml: reads a whole
// document into memory and walks its elements. Bytes pass through as UTF-8;
// entities and character references are decoded, line ends become line
// feeds, other white space in values stays as written. Syntax is checked as
// far as the parser checks it (an unknown entity stays as text, a repeated
// attribute passes and the first counts), then the root's name; nothing
// else is validated. A document and its elements are used by one thread at a time.
#pragma once
#include <cstddef>
#include <istream>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace pugi {
struct xml_node_struct;
class xml_document;
}  // namespace pugi

// What Read raises: a syntax error (the text gives the fault and its byte
// offset), a root element of another name or more than one, text outside
// the root, or a stream that fails while being read.
class XMLReadError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// One element. A view into its document: it must not outlive it.
class XMLDeclaration {
 public:
  // Child elements in document order; text, comments and the like are not
  // counted. REQUIRES: index < GetElementsCount().
  size_t GetElementsCount() const { return elements_.size(); }
  XMLDeclaration GetElement(size_t index) const;

  // Exact, case-sensitive comparison with the element's name.
  bool NameEqual(const char* name) const;

  // The value of the first attribute of that name (exact, case-sensitive),
  // or null if the element has none. Valid while the document lives.
  const char* FindAttribute(const char* name) const;

  // The element's own text and CDATA children, joined in document order.
  std::string GetText() const;

 private:
  friend class XMLDocument;
  XMLDeclaration() = default;
  explicit XMLDeclaration(pugi::xml_node_struct* node);

  pugi::xml_node_struct* node_ = nullptr;
  std::vector<pugi::xml_node_struct*> elements_;  // one level only, never recursive
};

// A document whose root must carry the given name. Before Read it is an
// element with no name, attributes or children; after a successful Read it
// is the root element.
class XMLDocument : public XMLDeclaration {
 public:
  explicit XMLDocument(std::string root_name);
  ~XMLDocument();
  XMLDocument(const XMLDocument&) = delete;
  XMLDocument& operator=(const XMLDocument&) = delete;

  // Reads the stream to its end and parses it. Throws XMLReadError; on a
  // throw the document stays as it was before the call.
  void Read(std::istream& in);

 private:
  std::string root_name_;
  std::unique_ptr<pugi::xml_document> document_;
};
