#include "vault/text/rtf.h"

#include <algorithm>
#include <optional>
#include <unordered_map>
#include <utility>
#include <vector>

namespace vault::text {
namespace {

constexpr std::u16string_view kNewLine = u"\r\n";

enum class Destination : std::uint8_t { kBody, kSkipped, kFontTable, kHtmlTag };

// What a group saves and restores.
struct Group {
  Destination destination = Destination::kBody;
  bool html_suppressed = false;  // between \htmlrtf and \htmlrtf0: a rendering for readers that know no HTML
  std::uint32_t fallback = 1;    // \uc: characters that follow each \u for readers that know no Unicode
  unsigned code_page = kCodePageWestern;
};

class Reader {
 public:
  Reader(std::string_view in, const CodePages& pages, std::size_t limit) : in_(in), pages_(pages), limit_(limit) {}

  RtfDocument Run() {
    document_.text.reserve(std::min(limit_, in_.size() / 2));
    while (at_ < in_.size() && document_.text.size() < limit_ && !finished_) Step();
    Flush();
    if (document_.text.size() > limit_) document_.text.resize(limit_);
    return std::move(document_);
  }

 private:
  using Handler = void (Reader::*)(int parameter, char16_t value);
  struct Word {
    std::string_view name;
    Handler handler;
    char16_t value = 0;
  };
  static const Word kWords[];
  static const std::unordered_map<std::string_view, const Word*>& Words();

  // Deeper groups share their parent's state, so that hostile nesting costs no memory.
  static constexpr std::size_t kDeepest = 4096;
  static constexpr std::size_t kLongestWord = 32;
  static constexpr std::size_t kMostFonts = 4096;

  void Step() {
    const char c = in_[at_++];
    switch (c) {
      case '{':
        return OpenGroup();
      case '}':
        return CloseGroup();
      case '\\':
        return Control();
      case '\r':
      case '\n':
      case '\0':
        return;
      default:
        return RawByte(static_cast<std::uint8_t>(c));
    }
  }

  void OpenGroup() {
    to_skip_ = 0;
    star_ = false;
    if (groups_.size() < kDeepest) {
      groups_.push_back(group_);
    } else {
      ++unsaved_;
    }
  }

  void CloseGroup() {
    to_skip_ = 0;
    star_ = false;
    if (unsaved_) {
      --unsaved_;
    } else if (!groups_.empty()) {
      Flush();  // what the group wrote goes out under its own rules
      group_ = groups_.back();
      groups_.pop_back();
      finished_ = groups_.empty();
    }
  }

  void Control() {
    if (at_ >= in_.size()) return;
    const char c = in_[at_];
    const bool letter = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
    return letter ? ControlWord() : ControlSymbol(in_[at_++]);
  }

  void ControlSymbol(char c) {
    if (c == '*') {
      star_ = true;
      return;
    }
    if (c == '\'') return HexByte();
    if (SkippedAsFallback()) return;
    switch (c) {
      case '\\':
      case '{':
      case '}':
        return Byte(static_cast<std::uint8_t>(c));
      case '~':
        return Unit(0xA0);
      case '_':
        return Unit('-');
      case '\r':
      case '\n':
        return NewLine(0, 0);
      case '\t':
        return Unit('\t');
      default:
        return;  // optional hyphens and index marks
    }
  }

  static int HexDigit(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
  }

  void HexByte() {
    if (in_.size() - at_ < 2) return;
    const int high = HexDigit(in_[at_]), low = HexDigit(in_[at_ + 1]);
    if (high < 0 || low < 0) return;
    at_ += 2;
    if (!SkippedAsFallback()) Byte(static_cast<std::uint8_t>(high << 4 | low));
  }

  void ControlWord() {
    const std::size_t begin = at_;
    const auto letter = [](char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); };
    while (at_ < in_.size() && letter(in_[at_]) && at_ - begin < kLongestWord) ++at_;
    const std::string_view name = in_.substr(begin, at_ - begin);
    const bool negative = at_ + 1 < in_.size() && in_[at_] == '-' && in_[at_ + 1] >= '0' && in_[at_ + 1] <= '9';
    if (negative) ++at_;
    has_parameter_ = false;
    std::int64_t number = 0;
    for (; at_ < in_.size() && in_[at_] >= '0' && in_[at_] <= '9'; ++at_) {
      number = std::min<std::int64_t>(number * 10 + (in_[at_] - '0'), INT32_MAX);
      has_parameter_ = true;
    }
    if (at_ < in_.size() && in_[at_] == ' ') ++at_;
    if (negative) number = -number;

    const bool optional_destination = std::exchange(star_, false);
    if (name != "bin" && SkippedAsFallback()) return;
    const auto found = Words().find(name);
    if (found == Words().end()) {
      if (optional_destination) Skip(0, 0);
      return;
    }
    const Word& word = *found->second;
    (this->*word.handler)(static_cast<int>(number), word.value);
  }

  bool SkippedAsFallback() {
    if (!to_skip_) return false;
    --to_skip_;
    return true;
  }

  bool Visible() const {
    if (group_.destination == Destination::kHtmlTag) return !group_.html_suppressed;
    return group_.destination == Destination::kBody &&
           !(document_.content == RtfContent::kHtml && group_.html_suppressed);
  }

  // A byte as it stands in the file. The second half of a raw double-byte character may look like a brace.
  void RawByte(std::uint8_t byte) {
    const bool lead = IsLeadByte(group_.code_page, byte) && at_ < in_.size();
    const auto trail = lead ? static_cast<std::uint8_t>(in_[at_++]) : std::uint8_t{0};
    if (SkippedAsFallback()) {
      if (lead) SkippedAsFallback();
      return;
    }
    Byte(byte);
    if (lead) Byte(trail);
  }

  void Byte(std::uint8_t byte) {
    if (!Visible()) return;
    if (pending_page_ != group_.code_page) Flush();
    pending_page_ = group_.code_page;
    pending_.push_back(byte);
  }

  void Unit(char16_t unit) {
    if (!Visible()) return;
    Flush();
    Append(std::u16string_view(&unit, 1));
  }

  void Flush() {
    if (pending_.empty()) return;
    decoded_.clear();
    Decode(pending_page_, pending_, pages_, decoded_);
    pending_.clear();
    Append(decoded_);
  }

  // Text between the tags of wrapped HTML is text: its angle brackets and ampersands are no markup.
  void Append(std::u16string_view text) {
    if (document_.content != RtfContent::kHtml || group_.destination == Destination::kHtmlTag) {
      document_.text += text;
      return;
    }
    for (const char16_t c : text) {
      switch (c) {
        case '<':
          document_.text += u"&lt;";
          break;
        case '>':
          document_.text += u"&gt;";
          break;
        case '&':
          document_.text += u"&amp;";
          break;
        default:
          document_.text += c;
      }
    }
  }

  void SetCodePage(unsigned code_page) { group_.code_page = code_page; }
  unsigned FontCodePage(int font) const {
    const auto found = fonts_.find(font);
    return found == fonts_.end() || !found->second ? ansi_page_ : found->second;
  }
  void DefineFont(unsigned code_page) {
    if (fonts_.size() < kMostFonts || fonts_.count(defined_font_)) fonts_[defined_font_] = code_page;
  }

  // Handlers of the control words.
  void Character(int, char16_t value) { Unit(value); }
  void NewLine(int, char16_t) {
    if (!Visible()) return;
    Flush();
    document_.text += kNewLine;
  }
  void Skip(int, char16_t) {
    Flush();
    group_.destination = Destination::kSkipped;
  }
  void FontTable(int, char16_t) {
    if (group_.destination == Destination::kBody) group_.destination = Destination::kFontTable;
  }
  void Font(int font, char16_t) {
    if (group_.destination == Destination::kFontTable) {
      defined_font_ = font;
    } else {
      SetCodePage(FontCodePage(font));
    }
  }
  void FontCharset(int charset, char16_t) {
    if (group_.destination != Destination::kFontTable) return;
    const bool utf8_with_western_font = ansi_page_ == kCodePageUtf8 && charset == 0;
    DefineFont(utf8_with_western_font ? 0 : CodePageOfFontCharset(static_cast<unsigned>(charset)));
  }
  void FontPage(int page, char16_t) {
    if (group_.destination == Destination::kFontTable && page > 0) DefineFont(static_cast<unsigned>(page));
  }
  void AnsiPage(int page, char16_t) {
    if (page <= 0) return;
    ansi_page_ = static_cast<unsigned>(page);
    SetCodePage(ansi_page_);
  }
  void NamedPage(int, char16_t page) { AnsiPage(page, 0); }
  void DefaultFont(int font, char16_t) { default_font_ = font; }
  void Plain(int, char16_t) {
    if (default_font_) SetCodePage(FontCodePage(*default_font_));
  }
  void Fallback(int count, char16_t) { group_.fallback = static_cast<std::uint32_t>(std::clamp(count, 0, 64)); }
  void Unicode(int number, char16_t) {
    to_skip_ = group_.fallback;
    if (number < 0) number += 0x10000;
    if (number <= 0 || number > 0x10FFFF) return;
    if (number < 0x10000) return Unit(static_cast<char16_t>(number));
    Unit(static_cast<char16_t>(0xD7C0 + (number >> 10)));
    Unit(static_cast<char16_t>(0xDC00 + (number & 0x3FF)));
  }
  void Binary(int size, char16_t) { at_ += std::min(in_.size() - at_, static_cast<std::size_t>(std::max(size, 0))); }
  void FromHtml(int version, char16_t) {
    if (!has_parameter_ || version > 0) document_.content = RtfContent::kHtml;
  }
  void FromText(int, char16_t) {
    if (document_.content != RtfContent::kHtml) document_.content = RtfContent::kPlainText;
  }
  void HtmlTag(int, char16_t) {
    if (group_.destination != Destination::kBody) return;
    if (document_.content != RtfContent::kHtml) return Skip(0, 0);
    Flush();
    group_.destination = Destination::kHtmlTag;
    SetCodePage(ansi_page_);
  }
  void HtmlRtf(int on, char16_t) {
    Flush();
    group_.html_suppressed = !has_parameter_ || on != 0;
  }

  std::string_view in_;
  const CodePages& pages_;
  std::size_t limit_;
  std::size_t at_ = 0;
  Group group_;
  std::vector<Group> groups_;
  std::size_t unsaved_ = 0;
  bool finished_ = false;
  bool star_ = false;
  bool has_parameter_ = false;
  std::uint32_t to_skip_ = 0;
  unsigned ansi_page_ = kCodePageWestern;
  int defined_font_ = 0;
  std::optional<int> default_font_;
  std::unordered_map<int, unsigned> fonts_;
  std::vector<std::uint8_t> pending_;  // bytes not yet decoded, all of one code page
  unsigned pending_page_ = kCodePageWestern;
  std::u16string decoded_;
  RtfDocument document_;
};

const Reader::Word Reader::kWords[] = {
    {"par", &Reader::NewLine},
    {"line", &Reader::NewLine},
    {"sect", &Reader::NewLine},
    {"page", &Reader::NewLine},
    {"row", &Reader::NewLine},
    {"nestrow", &Reader::NewLine},
    {"softline", &Reader::NewLine},
    {"column", &Reader::NewLine},
    {"tab", &Reader::Character, '\t'},
    {"cell", &Reader::Character, '\t'},
    {"nestcell", &Reader::Character, '\t'},
    {"emdash", &Reader::Character, 0x2014},
    {"endash", &Reader::Character, 0x2013},
    {"emspace", &Reader::Character, 0x2003},
    {"enspace", &Reader::Character, 0x2002},
    {"qmspace", &Reader::Character, 0x2005},
    {"bullet", &Reader::Character, 0x2022},
    {"lquote", &Reader::Character, 0x2018},
    {"rquote", &Reader::Character, 0x2019},
    {"ldblquote", &Reader::Character, 0x201C},
    {"rdblquote", &Reader::Character, 0x201D},
    {"zwj", &Reader::Character, 0x200D},
    {"zwnj", &Reader::Character, 0x200C},
    {"zwbo", &Reader::Character, 0x200B},
    {"ltrmark", &Reader::Character, 0x200E},
    {"rtlmark", &Reader::Character, 0x200F},
    {"objattph", &Reader::Character, ' '},
    {"u", &Reader::Unicode},
    {"uc", &Reader::Fallback},
    {"f", &Reader::Font},
    {"plain", &Reader::Plain},
    {"fcharset", &Reader::FontCharset},
    {"cpg", &Reader::FontPage},
    {"fonttbl", &Reader::FontTable},
    {"deff", &Reader::DefaultFont},
    {"ansicpg", &Reader::AnsiPage},
    {"mac", &Reader::NamedPage, 10000},
    {"pc", &Reader::NamedPage, 437},
    {"pca", &Reader::NamedPage, 850},
    {"bin", &Reader::Binary},
    {"fromhtml", &Reader::FromHtml},
    {"fromtext", &Reader::FromText},
    {"htmltag", &Reader::HtmlTag},
    {"htmlrtf", &Reader::HtmlRtf},
    {"mhtmltag", &Reader::Skip},
    {"colortbl", &Reader::Skip},
    {"stylesheet", &Reader::Skip},
    {"info", &Reader::Skip},
    {"pict", &Reader::Skip},
    {"filetbl", &Reader::Skip},
    {"listtable", &Reader::Skip},
    {"revtbl", &Reader::Skip},
    {"fldinst", &Reader::Skip},
    {"objdata", &Reader::Skip},
    {"objclass", &Reader::Skip},
    {"objname", &Reader::Skip},
    {"sp", &Reader::Skip},
    {"xe", &Reader::Skip},
    {"tc", &Reader::Skip},
    {"rxe", &Reader::Skip},
    {"bkmkstart", &Reader::Skip},
    {"bkmkend", &Reader::Skip},
    {"private", &Reader::Skip},
};

const std::unordered_map<std::string_view, const Reader::Word*>& Reader::Words() {
  static const auto words = [] {
    std::unordered_map<std::string_view, const Word*> map;
    for (const Word& word : kWords) map.emplace(word.name, &word);
    return map;
  }();
  return words;
}

}  // namespace

RtfDocument ReadRtf(std::string_view rtf, const CodePages& pages, std::size_t limit) {
  return Reader(rtf, pages, limit).Run();
}

}  // namespace vault::text
