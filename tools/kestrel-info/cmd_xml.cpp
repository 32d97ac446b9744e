// `kestrel-info xml`: the tree of an XML file, the value at a path, or the
// parse-error message.
#include "command.h"

#include <kestrel/xml.h>

namespace kestrel::info {
namespace {

// One line per element, indented by depth: its name and, when it has text,
// the text. Walks without recursion, so any depth prints.
void printTree(const XmlNode* root, QTextStream& out) {
  const XmlNode* node = root;
  int depth = 0;
  while (node) {
    out << QString(2 * depth, QLatin1Char(' ')) << node->name;
    if (!node->value.isEmpty()) out << " = \"" << node->value << '"';
    out << '\n';
    if (node->firstChild) {
      node = node->firstChild;
      ++depth;
      continue;
    }
    while (node != root && !node->nextSibling) {
      node = node->parent;
      --depth;
    }
    node = node == root ? nullptr : node->nextSibling;
  }
}

int runXml(const QStringList& args, QTextStream& out, QTextStream& err) {
  if (args.isEmpty() || args.size() > 2) {
    err << "usage: kestrel-info xml <file> [<path>]\n";
    return 2;
  }
  XmlReader reader(args[0]);
  if (reader.getErrorsOccurred()) {
    err << reader.errorMessage << '\n';
    return 1;
  }
  if (args.size() == 1) {
    printTree(reader.root, out);
    return 0;
  }
  const XmlNode* node = XmlPathFinder().find(reader.root, args[1]);
  if (!node) {
    err << "no element at " << args[1] << '\n';
    return 1;
  }
  out << node->value << '\n';
  return 0;
}

void tourXml(QTextStream& out) {
  const char document[] =
      "<Settings>\n"
      "  <Cache><Size> 512 </Size><Folder>/tmp/cache</Folder></Cache>\n"
      "  <Display>full screen</Display>\n"
      "</Settings>\n";
  XmlReader reader(document, sizeof document - 1);
  printTree(reader.root, out);
  out << "Settings/Cache/Size -> \""
      << XmlTree(reader.root).getValue(QStringLiteral("Settings/Cache/Size")) << "\"\n";
  const char broken[] = "<Settings>\n  <Cache>\n</Settings>\n";
  out << "a broken document: " << XmlReader(broken, sizeof broken - 1).errorMessage << '\n';
}

const Command kXml{
    "xml",
    "shows the tree of an XML file, or the value at a path",
    "xml <file>\n"
    "  Parses the file and prints its element tree, one element per line, indented\n"
    "  by depth, with the trimmed text of elements that have some.\n"
    "xml <file> <path>\n"
    "  Prints the text of the first element at the slash-separated path, whose\n"
    "  first component is the root element's name (for example Settings/Cache/Size).\n"
    "A file that cannot be read or parsed prints the reader's message (rich text with\n"
    "the line and column) and exits with 1; so does a path that names no element.\n",
    runXml,
    tourXml,
    60};

}  // namespace

KESTREL_INFO_COMMAND(kXml);

}  // namespace kestrel::info
