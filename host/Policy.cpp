#include "host/Policy.h"

#include <windows.h>

#include <shlwapi.h>

namespace host {
namespace {

constexpr wchar_t kKey[] = L"Software\\Policies\\Microsoft\\Windows\\Windows Search";
constexpr int kLists = 4;

}  // namespace

bool AttachmentPolicy::Bars(const std::wstring& extension) const {
  return prevented || (!extension.empty() && StrStrIW(excluded.c_str(), extension.c_str()) != nullptr);
}

AttachmentPolicy ReadAttachmentPolicy() {
  AttachmentPolicy policy;
  DWORD value = 0, size = sizeof(value);
  if (!RegGetValueW(HKEY_LOCAL_MACHINE, kKey, L"PreventIndexingEmailAttachments", RRF_RT_REG_DWORD, nullptr, &value,
                    &size))
    policy.prevented = value == 1;
  for (int i = 0; i < kLists; ++i) {
    wchar_t text[4096];
    size = sizeof(text);
    const std::wstring name = L"ExcludedExtensionsMultiline" + std::to_wstring(i);
    if (!RegGetValueW(HKEY_LOCAL_MACHINE, kKey, name.c_str(), RRF_RT_REG_SZ, nullptr, text, &size))
      policy.excluded += std::wstring(text) + L";";
  }
  return policy;
}

}  // namespace host
