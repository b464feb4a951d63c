// Which sessions there are: one for each vault file, shared by all who work with it.
#include <atomic>
#include <memory>
#include <unordered_map>

#include "module/core/Boundary.h"
#include "module/core/HoardexPH.h"
#include "module/core/HoardexURL.h"
#include "module/core/SCLog.h"
#include "module/core/Text.h"
#include "module/mapi/MapiForWDS.h"
#include "platform/critical_section.h"

namespace {

constexpr wchar_t kLogSource[] = L".\\MapiForWDS";

using Session = std::shared_ptr<CMapiForWDS>;
using url::kVaultToken;

// The helper table. Writers hold the critical section; look-ups read an immutable snapshot and take no lock.
class HelperTable {
 public:
  HelperTable() = default;
  // Sessions that are still there when the module is unloaded are left as they are: MAPI must not be called then.
  ~HelperTable() {
    if (!owned_->empty()) owned_.release();
  }
  HelperTable(const HelperTable&) = delete;
  HelperTable& operator=(const HelperTable&) = delete;

  Session Find(const std::wstring& key) const {
    const auto seen = seen_.load();
    const auto entry = seen->find(key);
    return entry == seen->end() ? nullptr : entry->second.lock();
  }

  // The session that had the key before goes with its last user.
  void Store(const std::wstring& key, Session session) {
    CriticalSection::Guard guard(lock_);
    auto seen = std::make_shared<Seen>(*seen_.load());
    (*seen)[key] = session;
    const auto [entry, added] = owned_->try_emplace(key);
    if (added) module::Lock();
    entry->second.swap(session);
    seen_.store(std::move(seen));
  }

  // Held by a session of this process while its temporary profile exists.
  CriticalSection& logon() { return logon_; }

  // Empties the table and runs `each` on what was in it before letting go of it, under the lock. The table is empty
  // first, so that a look-up meanwhile finds no object that is being torn down.
  template <class Before, class Each>
  void Clean(Before&& before, Each&& each) {
    CriticalSection::Guard guard(lock_);
    seen_.store(nothing_);
    Owned cleaned;
    cleaned.swap(*owned_);
    before(cleaned.size());
    for (auto& [key, session] : cleaned) {
      each(key, session.get());
      session.reset();
      module::Unlock();
    }
  }

 private:
  using Seen = std::unordered_map<std::wstring, std::weak_ptr<CMapiForWDS>>;
  using Owned = std::unordered_map<std::wstring, Session>;

  CriticalSection lock_, logon_;
  std::unique_ptr<Owned> owned_ = std::make_unique<Owned>();
  const std::shared_ptr<const Seen> nothing_ = std::make_shared<const Seen>();  // emptying must not need memory
  std::atomic<std::shared_ptr<const Seen>> seen_ = nothing_;
};

// Never destroyed by itself: other libraries of a process that ends may still call this one.
HelperTable* g_helpers = nullptr;
HelperTable& Helpers() {
  static HelperTable& table = *(g_helpers = new HelperTable);
  return table;
}

}  // namespace

void CMapiForWDS::Closer::operator()(CMapiForWDS* object) const {
  boundary::Guard(kLogSource, __LINE__, L"CMapiForWDS::Teardown()", [&] {
    object->Teardown();
    return S_OK;
  });
  delete object;
}

CriticalSection& CMapiForWDS::LogonLock() {
  return Helpers().logon();
}

void CMapiForWDS::ReleaseTable() {
  delete g_helpers;
  g_helpers = nullptr;
}

std::shared_ptr<CMapiForWDS> CMapiForWDS::GetMapiObj(std::wstring item_url, HRESULT* set_up) {
  std::vector<std::wstring> tokens;
  if (ExtractURLTokens(item_url, tokens) <= static_cast<int>(kVaultToken)) {
    ZK_LOG(L"CMapiForWDS::Setup() - ExtractURLTokens failed");
    return nullptr;
  }
  const std::wstring key = text::Lower(tokens[kVaultToken]);
  Session found = Helpers().Find(key);
  ZK_LOG(
      L"CMapiForWDS::GetMapiObj() - Looking in MAPI helper object table, for file path %s the MAPI object address is "
      L"[0x%lX].",
      key.c_str(), logging::Address(found.get()));
  if (found) return found;
  // What throws leaves nobody who knows of the object; a step that fails is another matter.
  std::unique_ptr<CMapiForWDS, Closer> made(new CMapiForWDS);
  ZK_LOG(L"CMapiForWDS::GetMapiObj() - Created a new MAPI helper object at address [0x%lX] for file name %s",
         logging::Address(made.get()), key.c_str());
  const HRESULT hr = made->Setup(item_url);
  ZK_LOG(L"CMapiForWDS::GetMapiObj() - Call to CMapiForWDS::Setup() returned with value [0x%08lX]. URL is :%s", hr,
         item_url.c_str());
  if (set_up) *set_up = hr;
  if (FAILED(hr)) {
    // Neither kept nor torn down: whatever the set-up had opened stays open, and the next request builds another.
    made.release();
    return nullptr;
  }
  Session session = std::move(made);
  Helpers().Store(key, session);
  return session;
}

void CMapiForWDS::CleanMapiObjs() {
  ZK_LOG(L"CMapiForWDS::CleanMapiObjs() - Enter");
  Helpers().Clean(
      [](size_t count) {
        ZK_LOG(L"CMapiForWDS::CleanMapiObjs() - %d MAPI helper objects to be cleaned up", static_cast<int>(count));
      },
      [](const std::wstring& key, const CMapiForWDS* object) {
        ZK_LOG(
            L"CMapiForWDS::CleanMapiObjs() - Cleaning up MAPI helper object at address [0x%lX] whose file path is "
            L"%s.",
            logging::Address(object), key.c_str());
      });
  ZK_LOG(L"CMapiForWDS::CleanMapiObjs() - Exit");
}
