// UTF-8 to UTF-16 in one pass into the final storage, trimming on the way.
#include "element_text.h"

#include <cstdint>
#include <cstring>

namespace kestrel::xml {

namespace {

// Units per shared block (8 KiB), and the longest value placed in one; a
// longer value gets storage of its own.
constexpr qsizetype kBlockUnits = 4096;
constexpr qsizetype kLongestShared = kBlockUnits / 8;

bool isAsciiSpace(unsigned char c) {
  return c == ' ' || (c >= '\t' && c <= '\r');
}

// Decodes [in, end) to `out`, which has room for one unit per byte (no UTF-8
// sequence yields more units than it has bytes). Returns the end of the
// output.
char16_t* decode(const unsigned char* in, const unsigned char* end, char16_t* out) {
  constexpr std::uint64_t kHighBits = 0x8080808080808080u;
  while (in < end) {
    // Runs of ASCII, eight bytes at a time.
    std::uint64_t word;
    if (end - in >= 8 && (std::memcpy(&word, in, 8), (word & kHighBits) == 0)) {
      for (int i = 0; i < 8; ++i) out[i] = in[i];
      in += 8;
      out += 8;
      continue;
    }
    const unsigned c = *in;
    const std::ptrdiff_t left = end - in;
    if (c < 0x80) {
      *out++ = static_cast<char16_t>(c);
      in += 1;
    } else if (c >= 0xc2 && c < 0xe0 && left >= 2) {
      *out++ = static_cast<char16_t>(((c & 0x1f) << 6) | (in[1] & 0x3f));
      in += 2;
    } else if (c >= 0xe0 && c < 0xf0 && left >= 3) {
      *out++ = static_cast<char16_t>(((c & 0x0f) << 12) | ((in[1] & 0x3f) << 6) | (in[2] & 0x3f));
      in += 3;
    } else if (c >= 0xf0 && c < 0xf5 && left >= 4) {
      const char32_t point =
          ((c & 0x07) << 18) | ((in[1] & 0x3f) << 12) | ((in[2] & 0x3f) << 6) | (in[3] & 0x3f);
      *out++ = static_cast<char16_t>(0xd7c0 + (point >> 10));  // high surrogate
      *out++ = static_cast<char16_t>(0xdc00 | (point & 0x3ff));
      in += 4;
    } else {
      *out++ = u'\ufffd';
      in += 1;
    }
  }
  return out;
}

}  // namespace

QString TextStore::trimmed(const char* data, std::size_t size) {
  auto begin = reinterpret_cast<const unsigned char*>(data);
  auto end = begin + size;
  // ASCII white space is cut from the bytes; only a non-ASCII character left
  // at an end can still be (Unicode) white space.
  while (begin < end && isAsciiSpace(*begin)) ++begin;
  while (end > begin && isAsciiSpace(end[-1])) --end;
  if (begin == end) return QStringLiteral("");

  const qsizetype bytes = end - begin;
  QString own;
  char16_t* units;
  if (bytes > kLongestShared) {
    own = QString(bytes, Qt::Uninitialized);
    units = reinterpret_cast<char16_t*>(own.data());
  } else {
    if (end_ - next_ <= bytes) {  // room for the units and a terminator
      block_ = QString(kBlockUnits, Qt::Uninitialized);
      next_ = reinterpret_cast<char16_t*>(block_.data());
      end_ = next_ + kBlockUnits;
    }
    units = next_;
  }
  qsizetype last = decode(begin, end, units) - units;
  qsizetype first = 0;
  if (*begin >= 0x80 || end[-1] >= 0x80) {
    while (first < last && QChar(units[first]).isSpace()) ++first;
    while (last > first && QChar(units[last - 1]).isSpace()) --last;
    if (first == last) return QStringLiteral("");
  }

  if (!own.isNull()) {
    own.truncate(last);
    if (first > 0) own.remove(0, first);
    return own;
  }
  // Terminated like any QString's text, since QString::utf16 relies on it.
  units[last] = u'\0';
  next_ = units + last + 1;
  QString::DataPointer shared = block_.data_ptr();  // one more reference to the block
  shared.ptr = units + first;
  shared.size = last - first;
  return QString(std::move(shared));
}

}  // namespace kestrel::xml
