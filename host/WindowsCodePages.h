// The code pages of this Windows.
#pragma once

#include <windows.h>

#include "vault/text/code_pages.h"

namespace host {

class WindowsCodePages final : public vault::text::CodePages {
 public:
  bool Decode(unsigned code_page, vault::text::Bytes bytes, std::u16string& text) const override {
    const auto* from = reinterpret_cast<const char*>(bytes.data());
    const int count = static_cast<int>(bytes.size());
    if (!count) return IsValidCodePage(code_page);
    const int length = MultiByteToWideChar(code_page, 0, from, count, nullptr, 0);
    if (length <= 0) return false;
    const size_t had = text.size();
    text.resize(had + static_cast<size_t>(length));
    MultiByteToWideChar(code_page, 0, from, count, reinterpret_cast<wchar_t*>(text.data() + had), length);
    return true;
  }
};

}  // namespace host
