#include "module/shell/VaultOfItem.h"

#include <windows.h>

#include <vector>

#include "module/core/SCLog.h"
#include "module/core/Text.h"
#include "module/core/UrlGrammar.h"
#include "module/filter/VaultFolders.h"

namespace {

using url::kVaultToken;

// The path as Windows takes it: one backslash between names, and no steps upwards. Empty when that cannot be told.
std::wstring Normalise(const std::wstring& path) {
  std::wstring full(path.size() + MAX_PATH, L'\0');
  for (;;) {
    const DWORD length = GetFullPathNameW(path.c_str(), static_cast<DWORD>(full.size()), full.data(), nullptr);
    const bool fits = length < full.size();
    full.resize(length);
    if (fits) return full;
  }
}

}  // namespace

bool IsRegisteredVault(const std::wstring& url) {
  std::vector<std::wstring> tokens;
  if (ExtractURLTokens(url, tokens) <= static_cast<int>(kVaultToken)) return false;
  const std::wstring path = Normalise(tokens[kVaultToken]);
  const size_t name = path.rfind(L'\\') + 1;
  // A colon names a stream of a file.
  if (!name || path.find(L':', name) != std::wstring::npos) return false;
  bool registered = false;
  ForEachVaultFolder(SCLog::kDetail, [&](const std::wstring& folder) {
    registered = registered || text::EqualOrdinal(Normalise(folder), std::wstring_view(path).substr(0, name));
  });
  return registered;
}
