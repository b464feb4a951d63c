// The grammar of item URLs. Bytes are characters, but for 0x80 and above, which take the next byte along.
#include "fuzz/reading.h"
#include "module/core/UrlGrammar.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::wstring text;
  for (std::size_t i = 0; i < size; ++i) {
    const bool wide = data[i] >= 0x80 && i + 1 < size;
    text += static_cast<wchar_t>(wide ? data[i] << 8 | data[i + 1] : data[i]);
    i += wide;
  }
  const std::wstring_view trimmed = url::Trim(text);
  FUZZ_CHECK(url::Trim(trimmed) == trimmed);
  const std::wstring normal = url::Normalise(trimmed);
  FUZZ_CHECK(normal.size() == trimmed.size() && url::Normalise(normal) == normal);

  std::vector<std::wstring> tokens;
  FUZZ_CHECK(ExtractURLTokens(normal, tokens) == static_cast<int>(tokens.size()) && !tokens.empty());
  std::size_t characters = 0;
  for (std::size_t i = 0; i < tokens.size(); ++i) {
    FUZZ_CHECK(i == 0 || (!tokens[i].empty() && tokens[i].find(L'/') == std::wstring::npos));
    characters += tokens[i].size();
  }
  FUZZ_CHECK(characters <= normal.size());

  const url::Kind kind = url::Classify(normal);
  if (kind != url::kUnknown) FUZZ_CHECK(tokens.size() >= 3 && url::EqualIgnoringCase(tokens[0], url::kScheme));
  // What lies in a container is a folder, a message or an attachment.
  if (kind >= url::kVaultFile) FUZZ_CHECK(url::Classify(url::Child(normal, L"00AB")) == url::kFolder);
  if (kind >= url::kVaultFile) FUZZ_CHECK(url::Classify(url::Child(normal, L"00AB[[7]].zkm")) == url::kMessage);

  const std::wstring_view group = url::SizeGroup(normal);
  FUZZ_CHECK(url::WithoutSize(normal).size() == normal.size() - group.size());
  if (!group.empty()) FUZZ_CHECK(group.starts_with(L"[[") && group.ends_with(L"]]"));
  const std::wstring message = url::MessageOfAttachment(normal);
  FUZZ_CHECK(normal.starts_with(message));
  return 0;
}
