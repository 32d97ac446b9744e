// XmlNode, XmlPathFinder and XmlTree: the tree and lookups by path.
#include <kestrel/xml.h>

#include "node_store.h"

#include <QStringTokenizer>

namespace kestrel {

namespace {

XmlNode* childNamed(XmlNode* node, QStringView name) {
  if (!node) return nullptr;
  for (XmlNode* child = node->firstChild; child; child = child->nextSibling) {
    if (child->name == name) return child;
  }
  return nullptr;
}

}  // namespace

XmlNode::XmlNode(const QString& name, qint32 kind) : name(name), kind(kind) {}

void* XmlNode::operator new(std::size_t size) {
  return xml::allocateSingleNode(size);
}

void XmlNode::operator delete(void* node) noexcept {
  xml::releaseNode(node);
}

XmlNode::~XmlNode() {
  // Frees the subtree below without recursion, so that no depth can exhaust
  // the stack. `pending` chains the nodes still to free through nextSibling;
  // a node with children is freed after them, its children being spliced in
  // front of it. Each node is unlinked before it is deleted, so its own
  // destructor finds nothing left to do.
  XmlNode* pending = firstChild;
  firstChild = nullptr;
  while (pending) {
    XmlNode* node = pending;
    if (XmlNode* children = node->firstChild) {
      XmlNode* last = children;
      while (last->nextSibling) last = last->nextSibling;
      last->nextSibling = node;
      node->firstChild = nullptr;
      pending = children;
      continue;
    }
    pending = node->nextSibling;
    node->parent = node->prevSibling = node->nextSibling = nullptr;
    delete node;
  }

  // The unlinking rule of the tree: without a previous sibling the parent
  // loses its whole child list, not just this node.
  if (nextSibling) nextSibling->prevSibling = prevSibling;
  if (prevSibling)
    prevSibling->nextSibling = nextSibling;
  else if (parent)
    parent->firstChild = nullptr;
}

XmlNode* XmlPathFinder::find(XmlNode* root, const QString& path) const {
  if (!root) return nullptr;
  XmlNode* node = nullptr;
  for (QStringView component : QStringTokenizer(path, u'/', Qt::SkipEmptyParts)) {
    if (!node) {
      if (root->name != component) return nullptr;
      node = root;
    } else if (!(node = childNamed(node, component))) {
      return nullptr;
    }
  }
  return node;
}

XmlNode* XmlPathFinder::findChild(XmlNode* node, const QString& name) const {
  return childNamed(node, name);
}

XmlTree::XmlTree(XmlNode* root) : root_(root) {}

XmlTree::~XmlTree() = default;

XmlNode* XmlTree::getRootNode() const {
  return root_;
}

QString XmlTree::getValue(const QString& path) const {
  const XmlNode* node = XmlPathFinder().find(root_, path);
  return node ? node->value : QString();
}

int XmlTree::setValue(const QString&, QString) {
  return 0;
}

}  // namespace kestrel
