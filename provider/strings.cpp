#include "provider/strings.h"

#include <algorithm>
#include <cstring>

#include "provider/memory.h"

namespace provider {
namespace {

class WindowsCodePages : public vault::text::CodePages {
 public:
  bool Decode(unsigned code_page, vault::text::Bytes bytes, std::u16string& text) const override {
    if (!IsValidCodePage(code_page)) return false;
    // One call takes an int; a piece boundary never parts a double-byte character, because every lead byte is paired.
    constexpr std::size_t kPiece = std::size_t{64} << 20;
    while (!bytes.empty()) {
      const std::size_t size = PieceSize(code_page, bytes, kPiece);
      const auto* from = reinterpret_cast<const char*>(bytes.data());
      const int count = MultiByteToWideChar(code_page, 0, from, static_cast<int>(size), nullptr, 0);
      const std::size_t before = text.size();
      text.resize(before + static_cast<std::size_t>(std::max(count, 0)));
      MultiByteToWideChar(code_page, 0, from, static_cast<int>(size), reinterpret_cast<wchar_t*>(text.data() + before),
                          count);
      bytes = bytes.subspan(size);
    }
    return true;
  }

 private:
  static std::size_t PieceSize(unsigned code_page, vault::text::Bytes bytes, std::size_t most) {
    if (bytes.size() <= most) return bytes.size();
    std::size_t size = 0;
    while (size < most) size += vault::text::IsLeadByte(code_page, bytes[size]) ? 2 : 1;
    return std::min(size, bytes.size());
  }
};

}  // namespace

const vault::text::CodePages& PlatformCodePages() {
  static const WindowsCodePages pages;
  return pages;
}

std::u16string Widen(unsigned code_page, vault::text::Bytes bytes) {
  std::u16string text;
  vault::text::Decode(code_page ? code_page : GetACP(), bytes, PlatformCodePages(), text);
  return text;
}

std::string Narrow(std::u16string_view text) {
  if (text.empty()) return {};
  const auto* wide = reinterpret_cast<const wchar_t*>(text.data());
  const int length = static_cast<int>(std::min<std::size_t>(text.size(), MAXLONG));
  std::string narrow(
      static_cast<std::size_t>(WideCharToMultiByte(CP_ACP, 0, wide, length, nullptr, 0, nullptr, nullptr)), '\0');
  WideCharToMultiByte(CP_ACP, 0, wide, length, narrow.data(), static_cast<int>(narrow.size()), nullptr, nullptr);
  return narrow;
}

std::u16string FromCaller(const void* text, ULONG flags) {
  if (!text) return {};
  if (flags & MAPI_UNICODE) return std::u16string(AsUtf16(static_cast<const wchar_t*>(text)));
  const auto* narrow = static_cast<const char*>(text);
  return Widen(0, {reinterpret_cast<const std::uint8_t*>(narrow), std::strlen(narrow)});
}

wchar_t* CopyWide(std::u16string_view text, Arena& arena) {
  auto* copy = arena.AllocateArray<wchar_t>(text.size() + 1);
  std::memcpy(copy, text.data(), text.size() * sizeof(wchar_t));
  copy[text.size()] = 0;
  return copy;
}

char* CopyNarrow(std::string_view text, Arena& arena) {
  auto* copy = arena.AllocateArray<char>(text.size() + 1);
  std::memcpy(copy, text.data(), text.size());
  copy[text.size()] = 0;
  return copy;
}

LPTSTR CopyForCaller(std::u16string_view text, ULONG flags, Arena& arena) {
  if (flags & MAPI_UNICODE) return reinterpret_cast<LPTSTR>(CopyWide(text, arena));
  return reinterpret_cast<LPTSTR>(CopyNarrow(Narrow(text), arena));
}

std::u16string Utf16FromLittleEndian(vault::text::Bytes bytes) {
  std::u16string text(bytes.size() / 2, u'\0');
  std::memcpy(text.data(), bytes.data(), text.size() * sizeof(char16_t));
  return text;
}

}  // namespace provider
