// The resource dictionary: its line format, loading, exporting and sharing.
#include <kestrel/resources.h>

#include <gtest/gtest.h>

#include <string>

namespace kestrel {
namespace {

struct LineRow {
  const char* name;
  const char* line;
  bool decodes;
  const char* entryName;
  const char* value;
  const char* qualifier;
};

class DictionaryLine : public ::testing::TestWithParam<LineRow> {};

TEST_P(DictionaryLine, DecodesFieldsInOrder) {
  const LineRow& row = GetParam();
  ResourceId id(QStringLiteral("stale"), QStringLiteral("stale"));
  QString value = QStringLiteral("stale");
  EXPECT_EQ(ResourceDictionary::decodeDictionaryEntryString(QString::fromUtf8(row.line), id, value),
            row.decodes);
  EXPECT_EQ(id.name, QString::fromUtf8(row.entryName));
  EXPECT_EQ(value, QString::fromUtf8(row.value));
  EXPECT_EQ(id.qualifier, QString::fromUtf8(row.qualifier));
}

const LineRow kLineRows[] = {
    {"Empty", "", false, "", "", ""},
    {"OneFieldFails", "<title>", false, "title", "", ""},
    {"UnclosedValueFails", "<title> <Globe", false, "title", "", ""},
    {"TwoFields", "<title> <Globe>", true, "title", "Globe", ""},
    {"ThreeFields", "<title> <Globus> <de>", true, "title", "Globus", "de"},
    {"NoSpaceBetweenFields", "<a><b><c>", true, "a", "b", "c"},
    // White space before "<" and just after it is skipped.
    {"SpaceBeforeAndAfterOpening", " \t< title>\t<  Globe> < de>", true, "title", "Globe", "de"},
    // White space before ">" stays in the field.
    {"TrailingSpaceInsideKept", "<title  > <Globe >", true, "title  ", "Globe ", ""},
    {"TextAfterThirdFieldIgnored", "<a> <b> <c> <d> tail", true, "a", "b", "c"},
    // Each field is searched for from the end of the previous one, so text
    // before a field is skipped.
    {"TextBetweenFieldsSkipped", "key <a> = <b>;", true, "a", "b", ""},
    // A field ends at the first ">": the rest of it is text to skip.
    {"GreaterThanEndsField", "<a>b> <c>", true, "a", "c", ""},
    {"LessThanInsideField", "<<a> <b<>", true, "<a", "b<", ""},
    // "<>" holds no field and is passed over.
    {"EmptyBracketsSkipped", "<> <a> <> <b>", true, "a", "b", ""},
    // Only white space inside: the last white-space character is the field.
    {"BlankFieldIsItsLastSpace", "<  > <x>", true, " ", "x", ""},
    // White space is Unicode white space (here EM SPACE and NO-BREAK SPACE).
    {"UnicodeSpaceAfterOpening", "<\u2003title> <\u00a0Globe>", true, "title", "Globe", ""},
};

INSTANTIATE_TEST_SUITE_P(Rows, DictionaryLine, ::testing::ValuesIn(kLineRows),
                         [](const auto& row) { return std::string(row.param.name); });

TEST(DictionaryEntry, WritesTwoOrThreeBracketedFields) {
  EXPECT_EQ(ResourceDictionary::createDictionaryEntryString(ResourceId("title"), "Globe"),
            "<title> <Globe>");
  EXPECT_EQ(ResourceDictionary::createDictionaryEntryString(ResourceId("title", "de"), "Globus"),
            "<title> <Globus> <de>");
  // Place markers inside the text are not expanded again.
  EXPECT_EQ(ResourceDictionary::createDictionaryEntryString(ResourceId("%2", "%1"), "%1"),
            "<%2> <%1> <%1>");
}

TEST(Dictionary, InsertFromStringReplacesSameKeyAndIgnoresBadLines) {
  ResourceDictionary dict;
  EXPECT_TRUE(dict.insertEntryFromString("<title> <Globe>"));
  EXPECT_TRUE(dict.insertEntryFromString("<title> <Earth>"));
  EXPECT_FALSE(dict.insertEntryFromString("<title>"));
  ASSERT_EQ(dict.entries().size(), 1);
  EXPECT_EQ(dict.entries().value(ResourceId("title")), "Earth");
}

// Lines split at any run of "\n" and "\r"; the first bad line stops the load
// and everything before it stays. Nothing but line breaks is a complete load.
TEST(Dictionary, LoadStopsAtFirstBadLineKeepingEarlierEntries) {
  ResourceDictionary dict;
  EXPECT_FALSE(dict.loadFromString("<a> <1>\r\n<b> <2>\n\n\r<c>\n<d> <4>\n"));
  EXPECT_EQ(dict.entries().keys(), (QList<ResourceId>{ResourceId("a"), ResourceId("b")}));

  ResourceDictionary blank;
  EXPECT_FALSE(blank.loadFromString("<a> <1>\n   \n<b> <2>"));
  EXPECT_EQ(blank.entries().size(), 1);

  ResourceDictionary empty;
  EXPECT_TRUE(empty.loadFromString(QString()));
  EXPECT_TRUE(empty.loadFromString("\r\n\n\r"));
  EXPECT_TRUE(empty.entries().isEmpty());
}

// Same name with different qualifiers are different keys; keys order by
// name, then qualifier, and the export follows that order. An empty
// dictionary exports a null string.
TEST(Dictionary, ExportThenLoadRoundTripsQualifiedEntries) {
  ResourceDictionary dict;
  ASSERT_TRUE(dict.loadFromString(
      "<title> <Globus> <de>\n<banner> <b.png>\n<title> <Globe>\r\n<title> <Globe terrestre> "
      "<fr>\n< icon> <i.png > <16 >"));
  ASSERT_EQ(dict.entries().size(), 5);

  QString text = QStringLiteral("old content");
  dict.exportToString(text);
  EXPECT_EQ(text,
            "<banner> <b.png>\r\n"
            "<icon> <i.png > <16 >\r\n"
            "<title> <Globe>\r\n"
            "<title> <Globus> <de>\r\n"
            "<title> <Globe terrestre> <fr>\r\n");

  ResourceDictionary back;
  EXPECT_TRUE(back.loadFromString(text));
  EXPECT_EQ(back.entries(), dict.entries());

  ResourceDictionary().exportToString(text);
  EXPECT_TRUE(text.isNull());
}

// A copy shares the table until one side writes; the other keeps its entries.
TEST(Dictionary, CopySharesUntilWritten) {
  ResourceDictionary original;
  ASSERT_TRUE(original.loadFromString("<a> <1>\n<b> <2>"));
  ResourceDictionary copy(original);
  EXPECT_TRUE(copy.entries().isSharedWith(original.entries()));

  copy.insert(ResourceId("c"), "3");
  EXPECT_FALSE(copy.entries().isSharedWith(original.entries()));
  EXPECT_EQ(original.entries().size(), 2);
  EXPECT_EQ(copy.entries().size(), 3);

  ResourceDictionary assigned;
  assigned = original;
  EXPECT_TRUE(original.insertEntryFromString("<a> <changed>"));
  EXPECT_EQ(assigned.entries().value(ResourceId("a")), "1");
}

}  // namespace
}  // namespace kestrel
