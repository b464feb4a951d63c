// The platform's code pages for native tests, by iconv.
#pragma once

#include <iconv.h>

#include <string>

#include "vault/text/code_pages.h"

namespace test {

class IconvCodePages : public vault::text::CodePages {
 public:
  bool Decode(unsigned code_page, vault::text::Bytes bytes, std::u16string& text) const override {
    const std::string name = code_page >= 28592 && code_page <= 28605 ? "ISO-8859-" + std::to_string(code_page - 28590)
                             : code_page == 20866                     ? "KOI8-R"
                             : code_page == 54936                     ? "GB18030"
                                                                      : "CP" + std::to_string(code_page);
    const iconv_t converter = iconv_open("UTF-16LE", name.c_str());
    if (converter == reinterpret_cast<iconv_t>(-1)) return false;
    std::u16string out(bytes.size() * 2 + 2, u'\0');
    auto* from = reinterpret_cast<char*>(const_cast<std::uint8_t*>(bytes.data()));
    auto* to = reinterpret_cast<char*>(out.data());
    std::size_t left = bytes.size(), room = out.size() * sizeof(char16_t);
    while (left && iconv(converter, &from, &left, &to, &room) == static_cast<std::size_t>(-1)) {
      if (!left || room < 2) break;
      *to++ = '?', *to++ = 0, room -= 2;
      ++from, --left;
    }
    iconv_close(converter);
    text.append(out.data(), reinterpret_cast<char16_t*>(to));
    return true;
  }
};

}  // namespace test
