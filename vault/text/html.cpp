#include "vault/text/html.h"

#include <algorithm>
#include <array>

#include "vault/text/entities.h"

namespace vault::text {
namespace {

constexpr std::u16string_view kNewLine = u"\r\n";
constexpr std::size_t kNone = std::u16string_view::npos;

constexpr bool IsSpace(char16_t c) {
  return c == ' ' || (c >= '\t' && c <= '\r');
}
constexpr bool IsLetter(char16_t c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}
constexpr bool IsAlphanumeric(char16_t c) {
  return IsLetter(c) || (c >= '0' && c <= '9');
}
constexpr char16_t Lower(char16_t c) {
  return c >= 'A' && c <= 'Z' ? static_cast<char16_t>(c + 32) : c;
}

enum class Role { kInline, kBlock, kBreak, kRow, kCell, kPreformatted, kHidden };
struct Element {
  std::string_view name;
  Role role;
};
constexpr Element kElements[] = {
    {"address", Role::kBlock},
    {"article", Role::kBlock},
    {"aside", Role::kBlock},
    {"blockquote", Role::kBlock},
    {"body", Role::kBlock},
    {"br", Role::kBreak},
    {"caption", Role::kBlock},
    {"center", Role::kBlock},
    {"dd", Role::kBlock},
    {"details", Role::kBlock},
    {"dir", Role::kBlock},
    {"div", Role::kBlock},
    {"dl", Role::kBlock},
    {"dt", Role::kBlock},
    {"fieldset", Role::kBlock},
    {"figcaption", Role::kBlock},
    {"figure", Role::kBlock},
    {"footer", Role::kBlock},
    {"form", Role::kBlock},
    {"h1", Role::kBlock},
    {"h2", Role::kBlock},
    {"h3", Role::kBlock},
    {"h4", Role::kBlock},
    {"h5", Role::kBlock},
    {"h6", Role::kBlock},
    {"head", Role::kBlock},
    {"header", Role::kBlock},
    {"hr", Role::kBlock},
    {"html", Role::kBlock},
    {"iframe", Role::kHidden},
    {"legend", Role::kBlock},
    {"li", Role::kBlock},
    {"listing", Role::kPreformatted},
    {"main", Role::kBlock},
    {"menu", Role::kBlock},
    {"nav", Role::kBlock},
    {"noembed", Role::kHidden},
    {"ol", Role::kBlock},
    {"option", Role::kBlock},
    {"p", Role::kBlock},
    {"pre", Role::kPreformatted},
    {"script", Role::kHidden},
    {"section", Role::kBlock},
    {"style", Role::kHidden},
    {"summary", Role::kBlock},
    {"table", Role::kBlock},
    {"tbody", Role::kRow},
    {"td", Role::kCell},
    {"textarea", Role::kPreformatted},
    {"tfoot", Role::kRow},
    {"th", Role::kCell},
    {"thead", Role::kRow},
    {"title", Role::kHidden},
    {"tr", Role::kRow},
    {"ul", Role::kBlock},
    {"xml", Role::kHidden},
};
static_assert(std::ranges::is_sorted(kElements, {}, &Element::name));
constexpr std::size_t kLongestElement = 10;

const Element* FindElement(std::string_view name) {
  const auto found = std::ranges::lower_bound(kElements, name, {}, &Element::name);
  return found != std::end(kElements) && found->name == name ? &*found : nullptr;
}

class Reader {
 public:
  Reader(std::u16string_view in, std::size_t limit) : in_(in), limit_(limit) {}

  std::u16string Run() {
    out_.reserve(std::min(limit_, in_.size() / 4));
    const std::size_t last_end = in_.rfind(u'>');
    while (at_ < in_.size() && out_.size() < limit_) {
      const char16_t c = in_[at_];
      if (c == '<' && last_end != kNone && at_ < last_end && Markup()) continue;
      if (c == '&' && Reference()) continue;
      Text(c);
      ++at_;
    }
    if (out_.size() > limit_) out_.resize(limit_);
    return std::move(out_);
  }

 private:
  // What stands between the text so far and the next visible character.
  enum class Gap { kNone, kSpace, kTab, kLine };

  char16_t At(std::size_t offset) const { return offset < in_.size() ? in_[offset] : u'\0'; }
  bool StartsWith(std::u16string_view text) const { return in_.compare(at_, text.size(), text) == 0; }

  // --- output
  void Visible(char16_t c) {
    if (!line_empty_) {
      if (gap_ == Gap::kLine) out_ += kNewLine;
      if (gap_ == Gap::kTab) out_ += u'\t';
      if (gap_ == Gap::kSpace) out_ += u' ';
    }
    gap_ = Gap::kNone;
    line_empty_ = false;
    out_ += c;
  }
  void NewLine() {
    if (gap_ == Gap::kLine && !line_empty_) out_ += kNewLine;
    out_ += kNewLine;
    gap_ = Gap::kNone;
    line_empty_ = true;
  }
  void Block() {
    if (!line_empty_ && gap_ != Gap::kTab) gap_ = Gap::kLine;
  }
  void Row() {
    gap_ = line_empty_ ? Gap::kNone : Gap::kLine;
    cells_ = 0;
  }
  void Cell() {
    if (cells_++ && !line_empty_) gap_ = Gap::kTab;
  }
  void Text(char16_t c) {
    constexpr char16_t kSoftHyphen = 0xAD;
    if (c == 0 || c == kSoftHyphen) return;
    if (preformatted_ && c == '\n') return NewLine();
    if (preformatted_ && c == '\r') {
      if (At(at_ + 1) != '\n') NewLine();
      return;
    }
    if (preformatted_ && (c == ' ' || c == '\t')) return Visible(c);
    if (!IsSpace(c)) return Visible(c);
    if (gap_ == Gap::kNone) gap_ = Gap::kSpace;
  }

  // --- character references
  bool Reference() { return At(at_ + 1) == '#' ? NumericReference() : NamedReference(); }

  bool NumericReference() {
    std::size_t i = at_ + 2;
    const bool hex = Lower(At(i)) == 'x';
    if (hex) ++i;
    const std::size_t begin = i;
    std::uint32_t value = 0;
    for (; IsAlphanumeric(At(i)); ++i) {
      const char16_t c = Lower(in_[i]);
      const std::uint32_t digit = c <= '9' ? c - u'0' : c - u'a' + 10u;
      if (digit >= (hex ? 16u : 10u)) break;
      value = std::min<std::uint32_t>(value * (hex ? 16 : 10) + digit, 0x110000);
    }
    if (i == begin) return false;
    at_ = At(i) == ';' ? i + 1 : i;
    if (value >= 0x80 && value < 0xA0) value = FromWestern(static_cast<std::uint8_t>(value));
    if (value < 0x80) {
      if (value == '\n' || value == '\r') value = ' ';
      Text(static_cast<char16_t>(value));
      return true;
    }
    scratch_.clear();
    AppendCodePoint(value, scratch_);
    for (const char16_t unit : scratch_) Text(unit);
    return true;
  }

  bool NamedReference() {
    char name[kLongestEntity];
    std::size_t length = 0;
    while (length < kLongestEntity && IsAlphanumeric(At(at_ + 1 + length))) {
      name[length] = static_cast<char>(in_[at_ + 1 + length]);
      ++length;
    }
    LegacyEntity entity{EntityCharacter({name, length}), length};
    const bool closed = entity.character && At(at_ + 1 + length) == ';';
    if (!closed) entity = EntityWithoutSemicolon({name, length});
    if (!entity.character) return false;
    at_ += 1 + entity.length;
    if (At(at_) == ';') ++at_;
    Text(entity.character);
    return true;
  }

  // --- markup; false: the "<" is text
  bool Markup() {
    const char16_t next = At(at_ + 1);
    if (IsLetter(next)) return Tag(at_ + 1, false);
    if (next == '/' && IsLetter(At(at_ + 2))) return Tag(at_ + 2, true);
    if (StartsWith(u"<!--")) return Comment();
    if (StartsWith(u"<![CDATA[")) return CharacterData();
    return (next == '!' || next == '?' || next == '/') && SkipTo(u">", at_ + 2);
  }

  // Finds `mark` from `from` on. Once a mark is known to be absent it is never looked for again.
  struct Missing {
    bool comment = false, data = false;
    std::array<bool, std::size(kElements)> closing{};
  };

  bool SkipTo(std::u16string_view mark, std::size_t from) {
    const std::size_t end = in_.find(mark, std::min(from, in_.size()));
    if (end == kNone) return false;
    at_ = end + mark.size();
    return true;
  }

  bool Comment() {
    if (At(at_ + 4) == '>') return SkipTo(u">", at_ + 4);
    if (At(at_ + 4) == '-' && At(at_ + 5) == '>') return SkipTo(u">", at_ + 5);
    if (!missing_.comment && SkipTo(u"-->", at_ + 4)) return true;
    missing_.comment = true;
    return SkipTo(u">", at_ + 4);
  }

  bool CharacterData() {
    constexpr std::size_t kLead = 9;
    const std::size_t end = missing_.data ? kNone : in_.find(u"]]>", at_ + kLead);
    if (end == kNone) {
      missing_.data = true;
      return SkipTo(u">", at_);
    }
    for (at_ += kLead; at_ < end && out_.size() < limit_; ++at_) Text(in_[at_]);
    at_ = end + 3;
    return true;
  }

  // The position after the ">" of the tag whose attributes begin at `i`. Quotes hide ">", unless documents with stray
  // quotes have made that fail so often that reading on would no longer be linear.
  std::size_t TagEnd(std::size_t i) {
    constexpr int kMostFailures = 32;
    if (quote_failures_ < kMostFailures) {
      char16_t quote = 0, before = 0;
      for (std::size_t j = i; j < in_.size(); ++j) {
        const char16_t c = in_[j];
        if (quote) {
          if (c == quote) quote = 0;
        } else if (c == '>') {
          return j + 1;
        } else if ((c == '"' || c == '\'') && before == '=') {
          quote = c;
        }
        if (!IsSpace(c)) before = c;
      }
      ++quote_failures_;
    }
    const std::size_t end = in_.find(u'>', i);
    return end == kNone ? kNone : end + 1;
  }

  bool Tag(std::size_t name_at, bool closing) {
    char name[kLongestElement];
    std::size_t length = 0, i = name_at;
    for (; i < in_.size() && !IsSpace(in_[i]) && in_[i] != '>' && in_[i] != '/'; ++i) {
      if (in_[i] == '@' || in_[i] == '<') return false;  // an address or a comparison that nobody escaped
      if (length < kLongestElement) name[length] = static_cast<char>(in_[i] < 0x80 ? Lower(in_[i]) : u'?');
      ++length;
    }
    const std::size_t end = TagEnd(i);
    if (end == kNone) return false;
    const bool self_closed = in_[end - 2] == '/';
    at_ = end;
    const Element* element = length <= kLongestElement ? FindElement({name, length}) : nullptr;
    if (element) Apply(*element, closing, self_closed);
    return true;
  }

  void Apply(const Element& element, bool closing, bool self_closed) {
    switch (element.role) {
      case Role::kInline:
        return;
      case Role::kBlock:
        return Block();
      case Role::kBreak:
        return NewLine();
      case Role::kRow:
        return Row();
      case Role::kCell:
        return closing ? void() : Cell();
      case Role::kPreformatted:
        return Preformatted(closing);
      case Role::kHidden:
        if (!closing && !self_closed) Hide(element);
        return;
    }
  }

  void Preformatted(bool closing) {
    Block();
    if (!closing) {
      ++preformatted_;
      if (At(at_) == '\r') ++at_;
      if (At(at_) == '\n') ++at_;
    } else if (preformatted_) {
      --preformatted_;
    }
  }

  // Leaves out an element's content. A missing end tag must not hide the rest of the document.
  void Hide(const Element& element) {
    bool& missing = missing_.closing[static_cast<std::size_t>(&element - kElements)];
    if (missing) return;
    for (std::size_t i = in_.find(u"</", at_); i != kNone; i = in_.find(u"</", i + 2)) {
      std::size_t matched = 0;
      while (matched < element.name.size() &&
             Lower(At(i + 2 + matched)) == static_cast<unsigned char>(element.name[matched])) {
        ++matched;
      }
      const char16_t after = At(i + 2 + matched);
      if (matched < element.name.size() || (after != '>' && after != '/' && !IsSpace(after))) continue;
      const std::size_t end = in_.find(u'>', i);
      at_ = end == kNone ? in_.size() : end + 1;
      return;
    }
    missing = true;
  }

  std::u16string_view in_;
  std::size_t limit_;
  std::size_t at_ = 0;
  std::u16string out_, scratch_;
  Gap gap_ = Gap::kNone;
  bool line_empty_ = true;
  std::size_t cells_ = 0;
  std::size_t preformatted_ = 0;
  int quote_failures_ = 0;
  Missing missing_;
};

// The document's own declaration, as far as it can be read before it is decoded.
unsigned DeclaredCodePage(Bytes html) {
  constexpr std::size_t kSearched = 4096;
  constexpr std::string_view kMark = "charset";
  std::string head(html.begin(), html.begin() + static_cast<std::ptrdiff_t>(std::min(html.size(), kSearched)));
  for (char& c : head) c = static_cast<char>(c >= 'A' && c <= 'Z' ? c + 32 : c);
  for (std::size_t i = head.find(kMark); i != std::string::npos; i = head.find(kMark, i + 1)) {
    const std::size_t equals = head.find_first_not_of(" \t\r\n", i + kMark.size());
    if (equals == std::string::npos || head[equals] != '=') continue;
    const std::size_t begin = head.find_first_not_of(" \t\r\n\"'", equals + 1);
    if (begin == std::string::npos) break;
    const std::size_t end = std::min(head.find_first_of(" \t\r\n\"';>/", begin), head.size());
    const unsigned page = CodePageOfCharsetName(std::string_view(head).substr(begin, end - begin));
    // A declaration that was legible as single bytes cannot be right in naming UTF-16.
    if (page == kCodePageUtf16Le || page == kCodePageUtf16Be) return kCodePageUtf8;
    if (page) return page;
  }
  return kCodePageUnknown;
}

bool HasMark(Bytes bytes, std::initializer_list<std::uint8_t> mark) {
  return bytes.size() >= mark.size() && std::equal(mark.begin(), mark.end(), bytes.begin());
}

}  // namespace

std::u16string DecodeHtml(Bytes html, unsigned code_page, const CodePages& pages) {
  std::u16string text;
  const auto decode = [&](unsigned page, std::size_t skipped) {
    Decode(page, html.subspan(skipped), pages, text);
    return std::move(text);
  };
  if (HasMark(html, {0xEF, 0xBB, 0xBF})) return decode(kCodePageUtf8, 3);
  if (HasMark(html, {0xFF, 0xFE})) return decode(kCodePageUtf16Le, 2);
  if (HasMark(html, {0xFE, 0xFF})) return decode(kCodePageUtf16Be, 2);
  const bool wide = code_page == kCodePageUtf16Le || code_page == kCodePageUtf16Be;
  if (wide && html.size() >= 2 && html[0] != 0 && html[1] != 0) code_page = kCodePageUnknown;
  if (code_page == kCodePageUnknown || code_page == kCodePageAscii) {
    if (const unsigned declared = DeclaredCodePage(html)) code_page = declared;
  }
  if (code_page == kCodePageUnknown || code_page == kCodePageAscii) {
    code_page = LooksLikeUtf8(html) ? kCodePageUtf8 : kCodePageWestern;
  }
  return decode(code_page, 0);
}

std::u16string HtmlToText(std::u16string_view html, std::size_t limit) {
  return Reader(html, limit).Run();
}

}  // namespace vault::text
