// kestrel::LanguageCode — language tags such as "en_US", "zh-Hant-TW" or
// "en_US.UTF-8": parsed into language, script and region, printed in the
// hyphenated form and walked from specific to general.
//
// Which language the user wants, the saved choice, the current locale and
// the localised web addresses are static members of kestrel::System
// (system.h, section "Locale and language").
//
// Example: print a tag and walk its fallback chain.
//
//   kestrel::LanguageCode code("zh_Hant_TW.UTF-8");
//   code.string();                        // "zh-Hant-TW"
//   for (const kestrel::LanguageCode* c = &code;;) {
//     const kestrel::LanguageCode* up = c->parent();
//     if (up == c || up->partCount() == 0) break;   // the chain ends
//     c = up;                             // "zh-Hant", then "zh"
//   }
#pragma once

#include <kestrel/export.h>
#include <kestrel/referent.h>

#include <QString>

namespace kestrel {

class KESTREL_EXPORT LanguageCode : public Referent {
 public:
  // The empty code: all parts empty, part count 0.
  LanguageCode();
  // Parses tag. Only the first non-empty piece before a "." counts (an
  // encoding suffix is ignored); that piece is split on "-" and "_" keeping
  // empty parts, whose number is the part count. The first part is the
  // language; a second part of exactly four characters is the script; the
  // next part, if exactly two characters, is the region; anything else is
  // ignored. Case is kept. An empty tag or one of dots only gives the empty
  // code. Never fails: unparsable text becomes the language.
  explicit LanguageCode(const QString& tag);
  // Copies the part count, the four strings and the parent reference.
  LanguageCode(const LanguageCode& other);
  LanguageCode& operator=(const LanguageCode& other);
  ~LanguageCode() override;

  // How many parts the parsed tag had (empty parts included).
  int partCount() const { return mPartCount; }
  const QString& language() const { return mLanguage; }
  const QString& script() const { return mScript; }
  const QString& region() const { return mRegion; }

  // Language, then "-" script and "-" region where those are not empty:
  // en_US prints "en-US". Computed on first call and kept from then on.
  QString string() const;

  // The next more general code, owned by this one. For a part count of 0 it
  // is this object itself (the chain ends). Otherwise every call makes a new
  // code with one part less (language, and the script when two or more parts
  // remain; never the region) that replaces the previous parent, so a
  // pointer from an earlier call is valid only until the next call unless
  // the caller holds a Ref to it. Not thread-safe.
  const LanguageCode* parent() const;

 private:
  int mPartCount = 0;
  QString mLanguage;
  QString mScript;
  QString mRegion;
  mutable QString mString;
  mutable Ref<LanguageCode> mParent;
};

}  // namespace kestrel
