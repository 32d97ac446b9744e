// Feeds arbitrary bytes to XmlReader as a document and walks the tree it
// builds: every node is reachable from the root with consistent links, and a
// failed parse leaves a message and no tree.
#include <kestrel/xml.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>

namespace {

void check(bool condition) {
  if (!condition) std::abort();
}

void walk(const kestrel::XmlNode* root) {
  const kestrel::XmlNode* node = root;
  while (node) {
    check(node->kind == kestrel::XmlNode::kElement);
    check(!node->value.isNull());
    if (node->firstChild) {
      check(node->firstChild->parent == node && !node->firstChild->prevSibling);
      node = node->firstChild;
      continue;
    }
    while (node != root && !node->nextSibling) node = node->parent;
    if (node == root) break;
    check(node->nextSibling->prevSibling == node && node->nextSibling->parent == node->parent);
    node = node->nextSibling;
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  kestrel::XmlReader reader(reinterpret_cast<const char*>(data), static_cast<qsizetype>(size));
  if (reader.getErrorsOccurred()) {
    check(!reader.root && reader.errorMessage.startsWith(QStringLiteral("<html>Parse error: ")));
    return 0;
  }
  check(reader.root && !reader.root->parent);
  walk(reader.root);
  kestrel::XmlTree tree(reader.root);
  tree.getValue(reader.root->name + QStringLiteral("/a/b"));
  return 0;
}
