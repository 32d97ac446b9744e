// XmlReader: builds a node tree from a whole document with expat.
#include <kestrel/xml.h>

#include "element_text.h"
#include "node_store.h"

#include <QCoreApplication>
#include <QFile>

// Debian's expat is built with DTD support; this makes its entity-expansion
// limits visible.
#define XML_DTD 1
#include <expat.h>

#include <array>
#include <climits>
#include <cstring>
#include <string>
#include <vector>

namespace kestrel {

namespace {

// Entity expansion is cut off once a document has produced this many bytes
// of output and its output exceeds its input by the amplification below, so
// an exploding document fails after a few MiB instead of exhausting memory.
constexpr unsigned long long kExpansionActivationBytes = 1ULL << 20;
constexpr float kMaximumAmplification = 100.0f;

const char* const kTranslationContext = "kestrel::XmlReader";

// Element names seen recently, converted to QString once: a document repeats
// a few names many times, and copies of one QString share their text.
class NameCache {
 public:
  const QString& get(const char* utf8) {
    // FNV-1a, computed while the terminator is sought.
    std::size_t hash = 2166136261u;
    std::size_t length = 0;
    for (; utf8[length]; ++length)
      hash = (hash ^ static_cast<unsigned char>(utf8[length])) * 16777619u;
    Entry& entry = entries_[hash % entries_.size()];
    if (entry.utf8.size() != length || std::memcmp(entry.utf8.data(), utf8, length) != 0) {
      entry.utf8.assign(utf8, length);
      entry.name = QString::fromUtf8(utf8, static_cast<qsizetype>(length));
    }
    return entry.name;
  }

 private:
  struct Entry {
    std::string utf8;
    QString name;
  };

  std::array<Entry, 64> entries_;
};

}  // namespace

// The state of one parse. It lives only inside the reader's constructor.
struct XmlReader::ParseState {
  // An open element and the last child appended to it so far, so that a new
  // child is linked after it without walking the sibling list.
  struct OpenElement {
    XmlNode* node;
    XmlNode* lastChild;
  };

  explicit ParseState(XmlReader& owner) : reader(owner), expat(XML_ParserCreate(nullptr)) {
    if (!expat) return;
    XML_SetUserData(expat, this);
    XML_SetElementHandler(expat, &ParseState::startElement, &ParseState::endElement);
    XML_SetCharacterDataHandler(expat, &ParseState::characters);
    XML_SetBillionLaughsAttackProtectionActivationThreshold(expat, kExpansionActivationBytes);
    XML_SetBillionLaughsAttackProtectionMaximumAmplification(expat, kMaximumAmplification);
  }

  ~ParseState() {
    if (expat) XML_ParserFree(expat);
  }

  ParseState(const ParseState&) = delete;
  ParseState& operator=(const ParseState&) = delete;

  static void XMLCALL startElement(void* user, const XML_Char* name, const XML_Char**) {
    auto* state = static_cast<ParseState*>(user);
    state->text.clear();  // text before a child element is not part of any value
    auto* node = ::new (state->nodes.allocate()) XmlNode(state->names.get(name));
    if (state->open.empty()) {
      state->reader.root = node;
    } else {
      OpenElement& parent = state->open.back();
      node->parent = parent.node;
      if (parent.lastChild) {
        parent.lastChild->nextSibling = node;
        node->prevSibling = parent.lastChild;
      } else {
        parent.node->firstChild = node;
      }
      parent.lastChild = node;
    }
    state->open.push_back({node, nullptr});
  }

  static void XMLCALL endElement(void* user, const XML_Char*) {
    auto* state = static_cast<ParseState*>(user);
    if (state->open.empty()) return;
    state->open.back().node->value = state->values.trimmed(state->text.data(), state->text.size());
    state->open.pop_back();
    state->text.clear();
  }

  static void XMLCALL characters(void* user, const XML_Char* data, int length) {
    static_cast<ParseState*>(user)->text.append(data, static_cast<std::size_t>(length));
  }

  // Feeds the whole buffer, in pieces that fit expat's int length, the last
  // one marked final. Returns false on a parse error.
  bool feed(const char* data, qsizetype size) {
    do {
      const int piece = static_cast<int>(size < INT_MAX ? size : INT_MAX);
      size -= piece;
      if (XML_Parse(expat, data, piece, size == 0) != XML_STATUS_OK) return false;
      data += piece;
    } while (size > 0);
    return true;
  }

  QString errorMessage() const {
    QByteArray text("<html>Parse error: ");
    if (const XML_LChar* description = XML_ErrorString(XML_GetErrorCode(expat)))
      text += description;
    text += "<p>at line: %1, column: %2<html>";
    return QCoreApplication::translate(kTranslationContext, text.constData(),
                                       "XML parse error with location")
        .arg(static_cast<qulonglong>(XML_GetCurrentLineNumber(expat)))
        .arg(static_cast<qulonglong>(XML_GetCurrentColumnNumber(expat)));
  }

  XmlReader& reader;
  XML_Parser expat;
  std::vector<OpenElement> open;
  // UTF-8 character data gathered since the last element start or end.
  std::string text;
  NameCache names;
  xml::NodeArena nodes;
  xml::TextStore values;
};

XmlReader::XmlReader(const QString& fileName) {
  QFile file(fileName);
  if (fileName.isEmpty() || !file.open(QIODevice::ReadOnly)) {
    errorMessage = QCoreApplication::translate(kTranslationContext, "Could not open file \"%1\"",
                                               "XML file could not be read")
                       .arg(fileName);
    return;
  }
  const QByteArray contents = file.readAll();
  parse(contents.constData(), contents.size());
}

XmlReader::XmlReader(const char* data, qsizetype size) {
  parse(size > 0 ? data : "", size > 0 ? size : 0);
}

XmlReader::XmlReader(const XmlReader&) {}

XmlReader& XmlReader::operator=(const XmlReader&) {
  return *this;
}

XmlReader::~XmlReader() {
  delete root;
}

bool XmlReader::getErrorsOccurred() const {
  return !errorMessage.isEmpty();
}

void XmlReader::parse(const char* data, qsizetype size) {
  ParseState state(*this);
  if (!state.expat) {
    errorMessage =
        QCoreApplication::translate(kTranslationContext, "<html>Parse error: out of memory",
                                    "XML parse error without location");
    return;
  }
  if (!state.feed(data, size)) {
    errorMessage = state.errorMessage();
    delete root;
    root = nullptr;
  }
}

}  // namespace kestrel
