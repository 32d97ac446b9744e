// XML: a small read-only reader that turns a whole document into a tree.
//
// `XmlReader` parses a file (or a buffer) at once and builds a tree of
// `XmlNode` elements; each node keeps its element name and its text with
// white space stripped at both ends. Attributes, comments, processing
// instructions and namespaces are not represented. `XmlPathFinder` walks a
// tree by slash-separated element names, and `XmlTree` answers text values by
// such a path. A document that cannot be read or parsed leaves no tree and a
// ready-made, translatable rich-text message for the user.
//
// Which type to use:
//   XmlReader      to load a document; it owns the tree;
//   XmlTree        to read values by path from a loaded tree;
//   XmlPathFinder  to reach nodes (not only values) by path.
//
// Example:
//
//   kestrel::XmlReader reader(QStringLiteral("settings.xml"));
//   if (reader.getErrorsOccurred()) {
//     showMessage(reader.errorMessage);          // rich text with line and column
//     return;
//   }
//   kestrel::XmlTree tree(reader.root);
//   QString size = tree.getValue(QStringLiteral("Settings/Cache/Size"));
//   // null when the document has no such element
//
// Text of an element is the character data after its last child element (or
// all of it when it has none): for <a>one<b/>two</a> the value of a is "two".
//
// Thread-safety: a reader, its tree and an XmlTree over it belong to one
// thread at a time; distinct readers are independent. Expansion of internal
// entities is bounded, so a document built to explode (nested or repeated
// entity references) fails with the parse-error message instead of
// exhausting memory.
#pragma once

#include <kestrel/export.h>

#include <QString>

#include <cstddef>

namespace kestrel {

// One element of a tree. Children form a doubly linked sibling list reached
// from firstChild, in document order. The fields are public: a tree is plain
// data that clients walk directly.
class KESTREL_EXPORT XmlNode {
 public:
  // The kind of every node the reader builds.
  static constexpr qint32 kElement = 1;

  // A node with the given name and kind, all four links null and a null
  // value.
  explicit XmlNode(const QString& name, qint32 kind = kElement);

  // Deletes every node below this one (without recursion, so trees of any
  // depth can be deleted), then unlinks this node from its siblings: the
  // next sibling's prevSibling takes this node's prevSibling; a previous
  // sibling's nextSibling takes this node's nextSibling; and if there is no
  // previous sibling, the parent's firstChild becomes null, not the next
  // sibling. Deleting a first child therefore detaches all its later
  // siblings from the parent (they stay allocated and linked to each other;
  // the caller who deletes a first child owns them). Deleting a root, as the
  // reader does, frees the whole tree.
  ~XmlNode();

  XmlNode(const XmlNode&) = delete;
  XmlNode& operator=(const XmlNode&) = delete;

  // Nodes are created with `new` and freed with `delete` (or live on the
  // stack). The reader places its nodes side by side in blocks of a few
  // hundred, and this pair lets `delete` free a node from either source; a
  // block is released with the last of its nodes, so a node kept after the
  // rest of its tree is freed keeps its block (32 KiB) alive. A node must not
  // be created by a global `::new` and then freed by `delete`.
  static void* operator new(std::size_t size);
  static void operator delete(void* node) noexcept;

  // Element name as the document spells it.
  QString name;
  // kElement for every node the reader builds.
  qint32 kind;
  // Null for the root.
  XmlNode* parent = nullptr;
  XmlNode* firstChild = nullptr;
  XmlNode* prevSibling = nullptr;
  XmlNode* nextSibling = nullptr;
  // The element's text, white space stripped at both ends; null until the
  // element has ended, empty (not null) for an ended element without text.
  // The reader stores short values of a tree side by side in shared blocks
  // (8 KiB), so a copy of a value kept after the tree is gone keeps its
  // block alive; the values behave as independent strings.
  QString value;
};

// Loads a whole XML document at construction and owns the tree it builds.
class KESTREL_EXPORT XmlReader {
 public:
  // Loads and parses the file at once. On success `root` is the document
  // element and `errorMessage` is empty. If the file cannot be opened (an
  // empty or missing name, a folder), `errorMessage` is the translation of
  // "Could not open file \"<fileName>\"" and `root` is null. If the parser
  // reports an error, `errorMessage` is the translation of
  // "<html>Parse error: <expat's error text><p>at line: L, column: C<html>"
  // with the line and column where parsing stopped, the partial tree is
  // deleted and `root` is null. Never throws; logs nothing.
  explicit XmlReader(const QString& fileName);

  // Parses `size` bytes at `data` exactly as the file constructor parses a
  // file's contents (a null `data` with size 0 is an empty document, which
  // is a parse error). Negative sizes count as 0.
  XmlReader(const char* data, qsizetype size);

  // A reader with no tree, an empty message and nothing being parsed; the
  // other reader's tree is not shared or copied.
  XmlReader(const XmlReader& other);

  // Does nothing: the target keeps its own tree and message.
  XmlReader& operator=(const XmlReader& other);

  // Deletes the tree.
  ~XmlReader();

  // True when loading failed, that is when errorMessage is not empty.
  bool getErrorsOccurred() const;

  // The document element, owned by the reader; null if loading failed.
  XmlNode* root = nullptr;
  // Empty when loading succeeded; otherwise the message described above.
  QString errorMessage;

 private:
  // The parse in progress: the expat handle, the open elements and the
  // character data gathered since the last element start or end. It exists
  // only while a constructor parses.
  struct ParseState;

  void parse(const char* data, qsizetype size);
};

// Finds nodes by slash-separated element paths. Stateless and thread-safe.
class KESTREL_EXPORT XmlPathFinder {
 public:
  // Splits `path` at "/" and drops empty components (so leading, trailing
  // and doubled slashes do not matter). The first component must equal the
  // root's name exactly (case-sensitive); each further one moves to the
  // first child of that name, in document order. Returns the node reached,
  // or null when the path has no components, a component is not found, or
  // `root` is null. Example: "Settings/Cache/Size" returns the first Size
  // element under the first Cache element of the root Settings.
  XmlNode* find(XmlNode* root, const QString& path) const;

  // The first child of `node` whose name equals `name` exactly, or null
  // (also for a null node).
  XmlNode* findChild(XmlNode* node, const QString& name) const;
};

// Read-only values by path over a tree that someone else owns (usually an
// XmlReader).
class KESTREL_EXPORT XmlTree {
 public:
  // Wraps `root`; does not take ownership.
  explicit XmlTree(XmlNode* root);

  // Does nothing: the tree belongs to its reader.
  ~XmlTree();

  XmlNode* getRootNode() const;

  // The value of the node XmlPathFinder::find gives for `path`, or a null
  // string when there is none.
  QString getValue(const QString& path) const;

  // The tree is read-only: changes nothing and returns 0 (failure).
  int setValue(const QString& path, QString value);

 private:
  XmlNode* root_;
};

}  // namespace kestrel
