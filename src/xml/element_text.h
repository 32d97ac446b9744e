// The values of elements, from the UTF-8 character data the parser gathers.
#pragma once

#include <QString>

#include <cstddef>

namespace kestrel::xml {

// Makes element values for one parse. Short values are placed one after the
// other in shared blocks of a few KiB rather than allocated one by one: each
// is an ordinary QString whose storage lies in a block, which it keeps alive
// with a reference, so copies share it and a change to one value detaches it
// as usual. A value kept after its tree is gone keeps its block alive.
class TextStore {
 public:
  // `size` bytes of UTF-8 at `data` as a QString with white space stripped
  // at both ends, exactly as QString::trimmed strips it; empty (not null)
  // when nothing remains. The bytes are those the parser delivers, which are
  // valid UTF-8; other bytes give some text (a lead byte that cannot start a
  // sequence there becomes U+FFFD), never a read or write out of bounds.
  QString trimmed(const char* data, std::size_t size);

 private:
  // The block being filled and its unused end.
  QString block_;
  char16_t* next_ = nullptr;
  char16_t* end_ = nullptr;
};

}  // namespace kestrel::xml
