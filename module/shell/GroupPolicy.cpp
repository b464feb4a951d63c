#include "module/shell/GroupPolicy.h"

#include <atomic>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "module/core/RegistryKey.h"
#include "module/core/SCLog.h"
#include "module/core/Text.h"

namespace {

constexpr wchar_t kLogSource[] = L".\\HoardexSP";
constexpr wchar_t kPolicyKey[] = L"Software\\Policies\\Microsoft\\Windows\\Windows Search";
constexpr wchar_t kPreventValue[] = L"PreventIndexingEmailAttachments";
constexpr int kExcludedValues = 4;

// What was read once. Readers hold a policy without counting, so it stays; one that is read again is not kept twice.
struct Snapshot {
  GroupPolicy policy;
  std::wstring extensions;  // the policy's text
  Snapshot* earlier = nullptr;
};

// Without destructors: in a process that ends, other modules may still call this one after its own end.
constinit const GroupPolicy g_none;
constinit std::atomic<const GroupPolicy*> g_current = &g_none;
constinit std::atomic<Snapshot*> g_latest = nullptr;

void Publish(std::unique_ptr<Snapshot> fresh) noexcept {
  GroupPolicy& policy = fresh->policy;
  policy.excluded_extensions = fresh->extensions;
  const auto same = [&](const GroupPolicy& other) {
    return other.prevent_attachments == policy.prevent_attachments &&
           other.excluded_extensions == policy.excluded_extensions;
  };
  if (same(g_none)) return g_current.store(&g_none);
  for (const Snapshot* known = g_latest; known; known = known->earlier)
    if (same(known->policy)) return g_current.store(&known->policy);
  fresh->earlier = g_latest;
  while (!g_latest.compare_exchange_weak(fresh->earlier, fresh.get())) continue;
  g_current = &fresh.release()->policy;
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

// Logs how the key's values stand.
void ReadPolicy(const RegistryKey& key, Snapshot& fresh) {
  const LONG read = key.ReadDword(kPreventValue, fresh.policy.prevent_attachments);
  if (read == ERROR_SUCCESS) {
    ZK_LOG(L"PreventIndexingEmailAttachments policy is set to %d", fresh.policy.prevent_attachments);
  } else {
    ZK_LOG(L"PreventIndexingEmailAttachments policy is not configured, errorCode = %ld", read);
  }
  ReadExcludedExtensions(key, fresh.extensions);
  if (fresh.extensions.empty()) return;
  fresh.extensions = text::Lower(std::move(fresh.extensions));
  ZK_LOG(L"strExcludeExtensions = %s.", fresh.extensions.c_str());
}

}  // namespace

void DetectWDSGroupPolicy() {
  std::unique_ptr<Snapshot> fresh;
  try {
    ZK_LOG(L"CHoardexSP::DetectWDSGroupPolicy() - Enter");
    fresh = std::make_unique<Snapshot>();
    RegistryKey key;
    const LONG opened = key.Open(HKEY_LOCAL_MACHINE, kPolicyKey);
    if (opened == ERROR_SUCCESS) {
      ReadPolicy(key, *fresh);
    } else {
      ZK_LOG(L"WDS GroupPolicy registry key not available, errorCode = %ld, Key - HKLM\\%s", opened, kPolicyKey);
    }
    Publish(std::move(fresh));
    ZK_LOG(L"CHoardexSP::DetectWDSGroupPolicy() - Exit");
  } catch (...) {
    ZK_LOG(L"Exception occured in CHoardexSP::DetectWDSGroupPolicy() - ErrorCode: %d", GetLastError());
    // The flag holds even when the extensions cannot be read.
    if (!fresh) return;
    fresh->extensions.clear();
    Publish(std::move(fresh));
  }
}

const GroupPolicy* CurrentGroupPolicy() {
  return g_current;
}

void ReleaseGroupPolicies() {
  g_current = &g_none;
  for (Snapshot* next = g_latest.exchange(nullptr); next;) {
    const std::unique_ptr<Snapshot> gone(next);
    next = gone->earlier;
  }
}
