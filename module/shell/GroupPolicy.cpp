#include "module/shell/GroupPolicy.h"

#include <atomic>
#include <vector>

#include "module/core/RegistryKey.h"
#include "module/core/SCLog.h"
#include "module/core/Text.h"

namespace {

constexpr wchar_t kLogSource[] = L".\\HoardexSP";
constexpr wchar_t kPolicyKey[] = L"Software\\Policies\\Microsoft\\Windows\\Windows Search";
constexpr wchar_t kPreventValue[] = L"PreventIndexingEmailAttachments";
constexpr int kExcludedValues = 4;

std::atomic<std::shared_ptr<const GroupPolicy>>& Current() {
  static auto* current = new std::atomic<std::shared_ptr<const GroupPolicy>>(std::make_shared<const GroupPolicy>());
  return *current;
}

void ReadExcludedExtensions(const RegistryKey& key, std::wstring& extensions) {
  for (int i = 0; i < kExcludedValues; ++i) {
    const std::wstring name = L"ExcludedExtensionsMultiline" + std::to_wstring(i);
    DWORD size = 0;
    LONG error = RegQueryValueExW(key.get(), name.c_str(), nullptr, nullptr, nullptr, &size);
    if (error != ERROR_SUCCESS) {
      ZK_LOG(L"%s policy is not configured, errorCode = %ld", name.c_str(), error);
      continue;
    }
    std::vector<wchar_t> text(size + 1);
    RegQueryValueExW(key.get(), name.c_str(), nullptr, nullptr, reinterpret_cast<BYTE*>(text.data()), &size);
    text.back() = 0;
    extensions.append(text.data()).append(L";");
    ZK_LOG(L"%s policy is set to '%s'", name.c_str(), text.data());
  }
}

}  // namespace

void DetectWDSGroupPolicy() {
  try {
    ZK_LOG(L"CHoardexSP::DetectWDSGroupPolicy() - Enter");
    Current().store(std::make_shared<const GroupPolicy>());
    RegistryKey key;
    const LONG opened = key.Open(HKEY_LOCAL_MACHINE, kPolicyKey);
    if (opened != ERROR_SUCCESS) {
      ZK_LOG(L"WDS GroupPolicy registry key not available, errorCode = %ld, Key - HKLM\\%s", opened, kPolicyKey);
      ZK_LOG(L"CHoardexSP::DetectWDSGroupPolicy() - Exit");
      return;
    }
    auto policy = std::make_shared<GroupPolicy>();
    DWORD prevent = 0;
    const LONG read = key.ReadDword(kPreventValue, prevent);
    if (read == ERROR_SUCCESS) {
      policy->prevent_attachments = prevent;
      // At once: it holds even when the rest cannot be read.
      Current().store(std::make_shared<const GroupPolicy>(*policy));
      ZK_LOG(L"PreventIndexingEmailAttachments policy is set to %d", prevent);
    } else {
      ZK_LOG(L"PreventIndexingEmailAttachments policy is not configured, errorCode = %ld", read);
    }
    ReadExcludedExtensions(key, policy->excluded_extensions);
    if (!policy->excluded_extensions.empty()) {
      policy->excluded_extensions = text::Lower(std::move(policy->excluded_extensions));
      ZK_LOG(L"strExcludeExtensions = %s.", policy->excluded_extensions.c_str());
    }
    Current().store(std::move(policy));
    ZK_LOG(L"CHoardexSP::DetectWDSGroupPolicy() - Exit");
  } catch (...) {
    ZK_LOG(L"Exception occured in CHoardexSP::DetectWDSGroupPolicy() - ErrorCode: %d", GetLastError());
  }
}

std::shared_ptr<const GroupPolicy> CurrentGroupPolicy() {
  return Current().load();
}
