// XmlReader, XmlNode, XmlPathFinder and XmlTree.
#include <kestrel/xml.h>

#include <QDir>
#include <QFile>
#include <QTemporaryDir>

#include <expat.h>
#include <gtest/gtest.h>

#include <cctype>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace kestrel {
namespace {

// A test name from row text: its index, then its letters and digits.
std::string rowName(std::size_t index, const std::string& text) {
  std::string name = "Row" + std::to_string(index) + "_";
  for (char c : text.substr(0, 24)) name += std::isalnum(static_cast<unsigned char>(c)) ? c : '_';
  return name;
}

std::unique_ptr<XmlReader> parseText(const std::string& document) {
  return std::make_unique<XmlReader>(document.data(), static_cast<qsizetype>(document.size()));
}

// (document, path, expected value); a null expectation means "no such node".
struct ValueRow {
  const char* document;
  const char* path;
  const char* expected;
};

void PrintTo(const ValueRow& row, std::ostream* out) {
  *out << '"' << row.document << "\" at \"" << row.path << '"';
}

class XmlValue : public testing::TestWithParam<ValueRow> {};

TEST_P(XmlValue, PathFindsTheTrimmedTextAfterTheLastChild) {
  const ValueRow& row = GetParam();
  auto reader = parseText(row.document);
  ASSERT_FALSE(reader->getErrorsOccurred()) << reader->errorMessage.toStdString();
  const QString value = XmlTree(reader->root).getValue(QString::fromUtf8(row.path));
  if (!row.expected) {
    EXPECT_TRUE(value.isNull()) << value.toStdString();
  } else {
    EXPECT_FALSE(value.isNull());
    EXPECT_EQ(value, QString::fromUtf8(row.expected));
  }
}

const ValueRow kValueRows[] = {
    {"<root>\n\t 42 \r\n</root>", "root", "42"},
    {"<r>&#13;&#9;x&#13;&#10;</r>", "r", "x"},  // a carriage return survives only as a reference
    // Text before a child element is dropped; the value is what follows the last child.
    {"<p>A-text<c>child</c>B-text</p>", "p", "B-text"},
    {"<p>A-text<c>child</c>B-text</p>", "p/c", "child"},
    {"<p>only before<c/></p>", "p", ""},
    // Leading, trailing and doubled slashes do not matter; names are case-sensitive.
    {"<root><a>x</a></root>", "/root/a/", "x"},
    {"<root><a>x</a></root>", "root//a", "x"},
    {"<root><a>x</a></root>", "Root/a", nullptr},
    {"<root><a>x</a></root>", "", nullptr},
    {"<root><a>x</a></root>", "root/a/b", nullptr},
    {"<root><a>x</a></root>", "a", nullptr},
    // The first of two equally named siblings wins, also on the way down.
    {"<root><a>1</a><a>2</a></root>", "root/a", "1"},
    {"<root><a><b>1</b></a><a><b>2</b><c>3</c></a></root>", "root/a/c", nullptr},
    // An ended element without text has an empty, not a null, value.
    {"<root><a/></root>", "root/a", ""},
    {"<root><a>   </a></root>", "root/a", ""},
    // Entities, character references, CDATA and comments.
    {"<r>a &amp; b &lt;&#x41;&#66;&gt;</r>", "r", "a & b <AB>"},
    {"<r><![CDATA[ x<y ]]></r>", "r", "x<y"},
    {"<r>a<!-- note -->b<?pi data?>c</r>", "r", "abc"},
    {"<!DOCTYPE r [<!ENTITY e 'entity text'>]><r>&e;</r>", "r", "entity text"},
    // Attributes are ignored.
    {"<r k='v'><a b=\"c\">t</a></r>", "r/a", "t"},
    // Text and names outside ASCII, in UTF-8 and in a declared encoding.
    {"<r>\xc3\xa9t\xc3\xa9 \xe6\x97\xa5\xe6\x9c\xac</r>", "r",
     "\xc3\xa9t\xc3\xa9 \xe6\x97\xa5\xe6\x9c\xac"},
    {"<r><\xc3\xa9l\xc3\xa9ment>v</\xc3\xa9l\xc3\xa9ment></r>", "r/\xc3\xa9l\xc3\xa9ment", "v"},
    {"<?xml version='1.0' encoding='ISO-8859-1'?><r>caf\xe9</r>", "r", "caf\xc3\xa9"},
    // Unicode white space (no-break space, em space) is stripped like ASCII white space.
    {"<r>\xc2\xa0 x y\xe2\x80\x83</r>", "r", "x y"},
    // Characters beyond 16 bits become surrogate pairs, also at the ends.
    {"<r> \xf0\x9f\x98\x80 x\xf0\x90\x8d\x88 </r>", "r", "\xf0\x9f\x98\x80 x\xf0\x90\x8d\x88"},
};

INSTANTIATE_TEST_SUITE_P(Rows, XmlValue, testing::ValuesIn(kValueRows),
                         [](const testing::TestParamInfo<ValueRow>& row) {
                           return rowName(row.index,
                                          std::string(row.param.document) + "_" + row.param.path);
                         });

// (document, expected message): the parse-error text, with expat's own words
// and the line and column where it stopped.
struct ErrorRow {
  std::string document;
  const char* expected;
};

void PrintTo(const ErrorRow& row, std::ostream* out) {
  *out << testing::PrintToString(row.document);
}

class XmlParseError : public testing::TestWithParam<ErrorRow> {};

TEST_P(XmlParseError, GivesTheMessageWithLineAndColumnAndNoTree) {
  auto reader = parseText(GetParam().document);
  EXPECT_TRUE(reader->getErrorsOccurred());
  EXPECT_EQ(reader->root, nullptr);
  EXPECT_EQ(reader->errorMessage.toStdString(), GetParam().expected);
}

const ErrorRow kErrorRows[] = {
    {"", "<html>Parse error: no element found<p>at line: 1, column: 0<html>"},
    {"<a>", "<html>Parse error: no element found<p>at line: 1, column: 3<html>"},
    {"<a>\n<b>\n</a>", "<html>Parse error: mismatched tag<p>at line: 3, column: 2<html>"},
    {"<a/><b/>", "<html>Parse error: junk after document element<p>at line: 1, column: 4<html>"},
    {"<a>&undefined;</a>", "<html>Parse error: undefined entity<p>at line: 1, column: 3<html>"},
    {std::string("<a>\0</a>", 8),
     "<html>Parse error: not well-formed (invalid token)<p>at line: 1, column: 3<html>"},
};

INSTANTIATE_TEST_SUITE_P(Rows, XmlParseError, testing::ValuesIn(kErrorRows),
                         [](const testing::TestParamInfo<ErrorRow>& row) {
                           return rowName(row.index, row.param.document);
                         });

TEST(XmlReader, ParseErrorUsesExpatsOwnErrorText) {
  // Every error row above is spelled out; this one follows expat's table for
  // a code the rows do not cover, so the reader's text cannot drift from it.
  auto reader = parseText("<a b='1' b='2'/>");
  const std::string expected = std::string("<html>Parse error: ") +
                               XML_ErrorString(XML_ERROR_DUPLICATE_ATTRIBUTE) +
                               "<p>at line: 1, column: 9<html>";
  EXPECT_EQ(reader->errorMessage.toStdString(), expected);
}

TEST(XmlReader, ReadsAFileOrGivesTheOpenMessage) {
  QTemporaryDir folder;
  ASSERT_TRUE(folder.isValid());
  for (const QString& name :
       {QString(), folder.filePath(QStringLiteral("missing.xml")), folder.path()}) {
    XmlReader reader(name);
    EXPECT_EQ(reader.root, nullptr);
    EXPECT_EQ(reader.errorMessage, QStringLiteral("Could not open file \"%1\"").arg(name));
  }
  const QString path = folder.filePath(QStringLiteral("settings \xc3\xa9.xml"));
  QFile file(path);
  ASSERT_TRUE(file.open(QIODevice::WriteOnly));
  file.write("<?xml version='1.0'?>\n<Settings>\n <Size> 512 </Size>\n</Settings>\n");
  file.close();
  XmlReader reader(path);
  ASSERT_FALSE(reader.getErrorsOccurred()) << reader.errorMessage.toStdString();
  EXPECT_EQ(reader.root->kind, XmlNode::kElement);
  EXPECT_EQ(XmlTree(reader.root).getValue(QStringLiteral("Settings/Size")), QStringLiteral("512"));
}

TEST(XmlReader, ChildrenAreLinkedBothWaysInDocumentOrder) {
  auto reader = parseText("<r><a/><b><x/></b><c/></r>");
  XmlNode* root = reader->root;
  ASSERT_NE(root, nullptr);
  EXPECT_EQ(root->parent, nullptr);
  XmlNode* previous = nullptr;
  QString names;
  for (XmlNode* child = root->firstChild; child; previous = child, child = child->nextSibling) {
    names += child->name;
    EXPECT_EQ(child->prevSibling, previous);
    EXPECT_EQ(child->parent, root);
  }
  ASSERT_EQ(names, QStringLiteral("abc"));
  XmlNode* x = root->firstChild->nextSibling->firstChild;
  ASSERT_NE(x, nullptr);
  EXPECT_EQ(x->parent, root->firstChild->nextSibling);
  EXPECT_EQ(x->prevSibling, nullptr);
  EXPECT_EQ(root->firstChild->firstChild, nullptr);
}

// Element names are cached by their bytes; names of one length, and a name
// right after a longer one that starts with it, must not be taken for each
// other.
TEST(XmlReader, KeepsEveryNameAmongManySimilarOnes) {
  std::vector<std::string> names;
  for (int i = 0; i < 300; ++i) names.push_back("e" + std::to_string(1000 + i));
  for (int i = 0; i < 1000; ++i) {
    const std::string name = "p" + std::to_string(i);
    names.push_back(name + "_" + std::to_string(i));
    names.push_back(name);
  }
  std::string document = "<r>";
  for (const std::string& name : names) document += "<" + name + "/>";
  document += "</r>";
  auto reader = parseText(document);
  ASSERT_NE(reader->root, nullptr);
  std::size_t i = 0;
  for (XmlNode* child = reader->root->firstChild; child; child = child->nextSibling, ++i) {
    ASSERT_LT(i, names.size());
    EXPECT_EQ(child->name.toStdString(), names[i]);
  }
  EXPECT_EQ(i, names.size());
}

TEST(XmlReader, CopiesAreEmptyAndAssignmentKeepsTheTarget) {
  auto original = parseText("<r>v</r>");
  XmlReader copy(*original);
  EXPECT_EQ(copy.root, nullptr);
  EXPECT_FALSE(copy.getErrorsOccurred());

  auto failed = parseText("<r>");
  XmlNode* const root = original->root;
  *original = *failed;
  EXPECT_EQ(original->root, root);
  EXPECT_FALSE(original->getErrorsOccurred());
}

TEST(XmlReader, NullOrNegativeBufferIsAnEmptyDocument) {
  for (qsizetype size : {qsizetype{0}, qsizetype{-5}}) {
    XmlReader reader(nullptr, size);
    EXPECT_EQ(reader.root, nullptr);
    EXPECT_EQ(reader.errorMessage.toStdString(),
              "<html>Parse error: no element found<p>at line: 1, column: 0<html>");
  }
}

// Nested and repeated entity references that would expand to gigabytes.
TEST(XmlReader, ExplodingEntitiesFailWithTheParseError) {
  std::string laughs = "<!DOCTYPE l [<!ENTITY l0 'lollollollollollollollollollol'>";
  for (int level = 1; level <= 9; ++level) {
    laughs += "<!ENTITY l" + std::to_string(level) + " '";
    for (int i = 0; i < 10; ++i) laughs += "&l" + std::to_string(level - 1) + ";";
    laughs += "'>";
  }
  laughs += "]><l>&l9;</l>";

  std::string quadratic = "<!DOCTYPE q [<!ENTITY big '" + std::string(100000, 'x') + "'>]><q>";
  for (int i = 0; i < 100000; ++i) quadratic += "&big;";
  quadratic += "</q>";

  // Expanding to 3 MB at a ratio over 100 is already refused: expansion
  // stops after about 1 MiB of output, not at the parser's default of 8 MiB.
  std::string moderate = "<!DOCTYPE m [<!ENTITY k '" + std::string(1000, 'k') + "'>]><m>";
  for (int i = 0; i < 3000; ++i) moderate += "&k;";
  moderate += "</m>";

  for (const std::string* document : {&laughs, &quadratic, &moderate}) {
    auto reader = parseText(*document);
    EXPECT_EQ(reader->root, nullptr);
    EXPECT_TRUE(reader->errorMessage.startsWith(QStringLiteral("<html>Parse error: ")))
        << reader->errorMessage.toStdString();
  }
}

TEST(XmlReader, HundredThousandNestedLevelsParseAndFree) {
  constexpr int kDepth = 100000;
  std::string document;
  for (int i = 0; i < kDepth; ++i) document += "<n>";
  document += "deep";
  for (int i = 0; i < kDepth; ++i) document += "</n>";
  auto reader = parseText(document);
  ASSERT_FALSE(reader->getErrorsOccurred()) << reader->errorMessage.toStdString();
  int depth = 0;
  XmlNode* node = reader->root;
  for (; node->firstChild; node = node->firstChild) ++depth;
  EXPECT_EQ(depth, kDepth - 1);
  EXPECT_EQ(node->value, QStringLiteral("deep"));
  reader.reset();  // frees every level without recursion
}

// Values are built in one pass from the parser's bytes and many of them share
// storage; each must still equal what QString makes of the same text, be
// terminated, and behave as a string of its own.
TEST(XmlReader, ValuesEqualQStringsTrimmedTextAndStandAlone) {
  // Pieces that cross the eight-byte ASCII runs, every UTF-8 length and
  // ASCII and Unicode white space; lengths up to about 1500 bytes give short
  // values (shared storage) and long ones (storage of their own).
  const char* const pieces[] = {"a",
                                "bcdefghijk",
                                " ",
                                "\t",
                                "\n",
                                "\xc2\xa0",
                                "\xc3\xa9",
                                "\xe6\x97\xa5",
                                "\xe2\x80\x83",
                                "\xf0\x9f\x98\x80"};
  std::string document = "<r>";
  std::vector<QString> expected;
  unsigned seed = 12345;
  for (int i = 0; i < 3000; ++i) {
    std::string text;
    const int count = i % 7 == 0 ? 300 : i % 40;
    for (int k = 0; k < count; ++k) {
      seed = seed * 1103515245u + 12345u;
      text += pieces[(seed >> 16) % std::size(pieces)];
    }
    document += "<v>" + text + "</v>";
    expected.push_back(QString::fromUtf8(text).trimmed());
  }
  document += "</r>";

  auto reader = parseText(document);
  ASSERT_FALSE(reader->getErrorsOccurred()) << reader->errorMessage.toStdString();
  std::vector<QString> values;
  for (XmlNode* node = reader->root->firstChild; node; node = node->nextSibling) {
    ASSERT_LT(values.size(), expected.size());
    ASSERT_EQ(node->value, expected[values.size()]) << "value " << values.size();
    ASSERT_FALSE(node->value.isNull());
    ASSERT_EQ(node->value.utf16()[node->value.size()], 0) << "value " << values.size();
    values.push_back(node->value);
  }
  ASSERT_EQ(values.size(), expected.size());

  // A change to one value leaves its neighbours alone, and values outlive
  // the tree they came from.
  XmlNode* first = reader->root->firstChild;
  first->value.append(QStringLiteral("changed"));
  first->value.prepend(QStringLiteral("changed"));
  EXPECT_EQ(first->nextSibling->value, expected[1]);
  reader.reset();
  values[2].append(QStringLiteral("x"));
  for (std::size_t i = 0; i < values.size(); ++i)
    ASSERT_EQ(values[i], i == 2 ? expected[i] + QStringLiteral("x") : expected[i]) << i;
}

// Nodes of a parsed tree belong to their tree, not to the reader's storage:
// a tree taken from its reader outlives it, and detached siblings are freed
// one by one (the leak checker sees any node or block left behind).
TEST(XmlReader, TreeTakenFromTheReaderOutlivesItAndFreesNodeByNode) {
  std::string document = "<r>";
  for (int i = 0; i < 2000; ++i) document += "<e>" + std::to_string(i) + "</e>";
  document += "</r>";
  auto reader = parseText(document);
  ASSERT_NE(reader->root, nullptr);
  XmlNode* root = std::exchange(reader->root, nullptr);
  reader.reset();

  XmlNode* detached = root->firstChild->nextSibling;
  delete root->firstChild;  // detaches all later siblings from the root
  EXPECT_EQ(root->firstChild, nullptr);
  int i = 1;
  while (detached) {
    ASSERT_EQ(detached->value, QString::number(i++));
    XmlNode* next = detached->nextSibling;
    delete detached;
    detached = next;
  }
  EXPECT_EQ(i, 2000);
  delete root;  // last: each detached node still names it as its parent
}

// Parent p with children a, b, c (b has a child of its own), linked by hand.
struct Family {
  XmlNode parent{QStringLiteral("p")};
  XmlNode *a = new XmlNode(QStringLiteral("a")), *b = new XmlNode(QStringLiteral("b")),
          *c = new XmlNode(QStringLiteral("c"));
  Family() {
    parent.firstChild = a;
    a->nextSibling = c->prevSibling = b;
    b->prevSibling = a;
    b->nextSibling = c;
    a->parent = b->parent = c->parent = &parent;
    b->firstChild = new XmlNode(QStringLiteral("grandchild"));
    b->firstChild->parent = b;
  }
};

TEST(XmlNode, DeletingAMiddleChildRelinksItsNeighbours) {
  Family family;
  delete family.b;  // frees its own child as well (the leak checker would see it)
  EXPECT_EQ(family.parent.firstChild, family.a);
  EXPECT_EQ(family.a->nextSibling, family.c);
  EXPECT_EQ(family.c->prevSibling, family.a);
}

// The tree's unlinking rule: a node without a previous sibling clears the
// parent's child list instead of handing it to its next sibling.
TEST(XmlNode, DeletingAFirstChildDetachesItsLaterSiblings) {
  Family family;
  delete family.a;
  EXPECT_EQ(family.parent.firstChild, nullptr);
  EXPECT_EQ(family.b->prevSibling, nullptr);
  delete family.b;  // detached: now the caller's to free, with c
  delete family.c;
}

TEST(XmlPathFinder, FindChildTakesTheFirstExactMatchAndTheTreeIsReadOnly) {
  auto reader = parseText("<r><a>1</a><A>2</A><a>3</a></r>");
  XmlPathFinder finder;
  XmlNode* found = finder.findChild(reader->root, QStringLiteral("a"));
  ASSERT_NE(found, nullptr);
  EXPECT_EQ(found->value, QStringLiteral("1"));
  EXPECT_EQ(finder.findChild(reader->root, QStringLiteral("b")), nullptr);
  EXPECT_EQ(finder.findChild(nullptr, QStringLiteral("a")), nullptr);
  EXPECT_EQ(finder.find(nullptr, QStringLiteral("r")), nullptr);
  XmlTree tree(reader->root);
  EXPECT_EQ(tree.getRootNode(), reader->root);
  EXPECT_EQ(tree.setValue(QStringLiteral("r/a"), QStringLiteral("2")), 0);
  EXPECT_EQ(tree.getValue(QStringLiteral("r/a")), QStringLiteral("1"));
  EXPECT_TRUE(XmlTree(nullptr).getValue(QStringLiteral("r")).isNull());
}

TEST(XmlReader, CountsTheSameElementsAsExpatOnARealDocument) {
  const char* path = "/usr/share/mime/packages/freedesktop.org.xml";
  QFile file(QString::fromUtf8(path));
  if (!file.open(QIODevice::ReadOnly)) GTEST_SKIP() << path << " is not installed on this machine";
  const QByteArray contents = file.readAll();

  long expatCount = 0;
  XML_Parser parser = XML_ParserCreate(nullptr);
  XML_SetUserData(parser, &expatCount);
  XML_SetStartElementHandler(
      parser, [](void* count, const XML_Char*, const XML_Char**) { ++*static_cast<long*>(count); });
  ASSERT_EQ(XML_Parse(parser, contents.constData(), static_cast<int>(contents.size()), 1),
            XML_STATUS_OK);
  XML_ParserFree(parser);

  XmlReader reader(QString::fromUtf8(path));
  ASSERT_FALSE(reader.getErrorsOccurred()) << reader.errorMessage.toStdString();
  long treeCount = 0;
  XmlNode* node = reader.root;
  while (node) {  // pre-order walk without recursion
    ++treeCount;
    if (node->firstChild) {
      node = node->firstChild;
      continue;
    }
    while (node && !node->nextSibling) node = node->parent;
    if (node) node = node->nextSibling;
  }
  EXPECT_EQ(treeCount, expatCount);
  EXPECT_EQ(reader.root->name, QStringLiteral("mime-info"));
  EXPECT_NE(XmlPathFinder().find(reader.root, QStringLiteral("mime-info/mime-type/comment")),
            nullptr);
}

}  // namespace
}  // namespace kestrel
