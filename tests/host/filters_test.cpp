// The filters that the host has of its own, through the interfaces that the module sees.
#include <gtest/gtest.h>

#include <filterr.h>
#include <shlwapi.h>
#include <windows.h>
#include <wrl/client.h>

#include <string>

#include "host/BuiltInFilter.h"
#include "host/PropertyNames.h"

namespace {

using Microsoft::WRL::ComPtr;

struct Content {
  std::wstring title, text;
  bool contract = true;  // every answer was one that the interface allows
};

Content Read(const std::wstring& extension, const std::string& bytes, ULONG room) {
  Content content;
  ComPtr<IFilter> filter;
  *filter.GetAddressOf() = host::MakeBuiltInFilter(extension, L"");
  if (!filter) return content;
  content.contract = filter->Init(0, 0, nullptr, nullptr) == E_FAIL;  // not loaded yet
  ComPtr<IPersistStream> persist;
  ComPtr<IStream> stream;
  *stream.GetAddressOf() =
      SHCreateMemStream(reinterpret_cast<const BYTE*>(bytes.data()), static_cast<UINT>(bytes.size()));
  ULONG flags = 0, last_id = 0;
  if (FAILED(filter.As(&persist)) || FAILED(persist->Load(stream.Get())) ||
      FAILED(filter->Init(IFILTER_INIT_APPLY_INDEX_ATTRIBUTES, 0, nullptr, &flags)))
    return content;
  STAT_CHUNK stat;
  std::vector<wchar_t> buffer(room);
  while (filter->GetChunk(&stat) == S_OK) {
    content.contract &= stat.idChunk > last_id;
    last_id = stat.idChunk;
    PROPVARIANT* value = nullptr;
    if (stat.flags == CHUNK_VALUE) {
      ULONG count = room;
      content.contract &= filter->GetText(&count, buffer.data()) == FILTER_E_NO_TEXT;
      content.contract &= filter->GetValue(&value) == S_OK && value;
      content.title = value->pwszVal;
      PropVariantClear(value);
      CoTaskMemFree(value);
      content.contract &= filter->GetValue(&value) == FILTER_E_NO_MORE_VALUES;
      continue;
    }
    content.contract &= filter->GetValue(&value) == FILTER_E_NO_VALUES;
    for (HRESULT hr = S_OK; hr == S_OK;) {
      ULONG count = room;
      hr = filter->GetText(&count, buffer.data());
      if (FAILED(hr)) break;
      content.contract &= count <= room;
      content.text.append(buffer.data(), count);
    }
    ULONG count = room;
    content.contract &= filter->GetText(&count, buffer.data()) == FILTER_E_NO_MORE_TEXT;
  }
  content.contract &= filter->GetChunk(&stat) == FILTER_E_END_OF_CHUNKS;
  return content;
}

TEST(BuiltInFilter, DetectsTheEncodingOfPlainText) {
  struct Case {
    std::string bytes;
    std::wstring text;
  };
  // clang-format off
  const Case cases[] = {
      {"plain", L"plain"},
      {"Gr\xc3\xbc\xc3\x9f" "e", L"Grüße"},
      {"\xef\xbb\xbfGr\xc3\xbc\xc3\x9f" "e", L"Grüße"},
      {"Gr\xfc\xdf"
       "e",
       L"Grüße"},  // the ANSI page, 1252 here
      {std::string("\xff\xfeG\0r\0\xfc\0", 8), L"Grü"},
      {std::string("\xfe\xff\0G\0r\0\xfc", 8), L"Grü"},
      {std::string("n\0o\0 \0m\0a\0r\0k\0", 14), L"no mark"},
      {std::string("\0n\0o\0 \0m\0a\0r\0k", 14), L"no mark"},
      {"\xe6\x97\xa5\xe6\x9c\xac", L"日本"},
      {"", L""},
  };
  // clang-format on
  for (const Case& c : cases)
    for (ULONG room : {1u, 3u, 1000u}) {
      const Content content = Read(L"TXT", c.bytes, room);
      EXPECT_EQ(content.text, c.text);
      EXPECT_TRUE(content.contract) << c.bytes << " by " << room;
    }
}

TEST(BuiltInFilter, ReadsHtmlWithItsTitle) {
  const Content content = Read(L"html",
                               "<html><head><TITLE>A &amp; B</TITLE><style>p{}</style></head>"
                               "<body><p>one</p><script>no()</script><p>two&nbsp;&euro;</p></body></html>",
                               16);
  EXPECT_TRUE(content.contract);
  EXPECT_NE(content.title.find(L"A & B"), std::wstring::npos);
  EXPECT_NE(content.text.find(L"one"), std::wstring::npos);
  EXPECT_NE(content.text.find(L"€"), std::wstring::npos);
  EXPECT_EQ(content.text.find(L"no()"), std::wstring::npos);
  EXPECT_EQ(content.text.find(L"A & B"), std::wstring::npos);
  EXPECT_TRUE(Read(L"htm", "<title>never closed", 16).contract);
}

TEST(BuiltInFilter, IsMadeForKnownTypesOnly) {
  const auto made = [](const wchar_t* extension, const wchar_t* type) {
    ComPtr<IFilter> filter;
    *filter.GetAddressOf() = host::MakeBuiltInFilter(extension, type);
    return filter.Get() != nullptr;
  };
  EXPECT_TRUE(made(L"", L"text/html; charset=utf-8"));
  EXPECT_TRUE(made(L"Csv", L""));
  for (const wchar_t* extension : {L"", L"jpg", L"docx", L".txt", L"tx"}) EXPECT_FALSE(made(extension, L""));
  ComPtr<IFilter> filter;
  *filter.GetAddressOf() = host::MakeBuiltInFilter(L"txt", L"");
  ComPtr<IPersistStream> persist;
  ASSERT_EQ(filter.As(&persist), S_OK);
  EXPECT_EQ(persist->Load(nullptr), E_POINTER);
}

TEST(PropertyName, IsTheCanonicalOneOrTheKey) {
  FULLPROPSPEC property = {{0xE3E0584C, 0xB788, 0x4A5A, {0xBB, 0x20, 0x7F, 0x5A, 0x44, 0xC9, 0xAC, 0xDD}},
                           {PRSPEC_PROPID, {14}}};
  EXPECT_EQ(host::PropertyName(property), "System.Message.FromName");
  property.psProperty.propid = 13;
  EXPECT_EQ(host::PropertyName(property), "System.Message.FromAddress");
  property.psProperty.propid = 9999;
  EXPECT_EQ(host::PropertyName(property), "{E3E0584C-B788-4A5A-BB20-7F5A44C9ACDD}/9999");
  wchar_t name[] = L"Ünï";
  property.psProperty.ulKind = PRSPEC_LPWSTR;
  property.psProperty.lpwstr = name;
  EXPECT_EQ(host::PropertyName(property), "{E3E0584C-B788-4A5A-BB20-7F5A44C9ACDD}/\xc3\x9cn\xc3\xaf");
}

}  // namespace
