#include <cstring>

#include "provider/items.h"
#include "provider/objects.h"
#include "provider/prop_object.h"
#include "provider/table.h"

namespace provider {
namespace {

class Store : public PropObject<IMsgStore> {
 public:
  explicit Store(const std::shared_ptr<StoreFile>& file)
      : PropObject(Kind::kStore, file, std::make_shared<StoreProperties>(file)) {}

  // A store that is only read never changes: nothing will ever be notified.
  STDMETHODIMP Advise(ULONG, LPENTRYID, ULONG, LPMAPIADVISESINK, ULONG* connection) override {
    return Guarded(
        "IMsgStore::Advise",
        [&] {
          Require(connection != nullptr, MAPI_E_INVALID_PARAMETER);
          *connection = 1;
        },
        connection);
  }
  STDMETHODIMP Unadvise(ULONG) override { return Answer("IMsgStore::Unadvise", S_OK); }
  STDMETHODIMP CompareEntryIDs(ULONG size_a, LPENTRYID a, ULONG size_b, LPENTRYID b, ULONG, ULONG* same) override {
    return Guarded(
        "IMsgStore::CompareEntryIDs",
        [&] {
          Require(same != nullptr, MAPI_E_INVALID_PARAMETER);
          *same = SameEntry(size_a, a, size_b, b);
        },
        same);
  }
  STDMETHODIMP OpenEntry(ULONG size, LPENTRYID id, LPCIID iid, ULONG flags, ULONG* type, LPUNKNOWN* object) override {
    ULONG unasked = 0;
    if (Has(kHoardexMapiLeavesTypes)) type = &unasked;
    return Guarded(
        "IMsgStore::OpenEntry", [&] { provider::OpenEntry(file_, size, id, iid, flags, type, object); }, type, object);
  }
  STDMETHODIMP SetReceiveFolder(LPTSTR, ULONG, ULONG, LPENTRYID) override {
    return Answer("IMsgStore::SetReceiveFolder", MAPI_E_NO_ACCESS);
  }
  STDMETHODIMP GetReceiveFolder(LPTSTR, ULONG, ULONG*, LPENTRYID*, LPTSTR*) override {
    return Answer("IMsgStore::GetReceiveFolder", MAPI_E_NO_SUPPORT);
  }
  STDMETHODIMP GetReceiveFolderTable(ULONG, LPMAPITABLE*) override {
    return Answer("IMsgStore::GetReceiveFolderTable", MAPI_E_NO_SUPPORT);
  }
  STDMETHODIMP StoreLogoff(ULONG* flags) override {
    return Guarded("IMsgStore::StoreLogoff", [&] {
      if (flags) *flags = LOGOFF_COMPLETE;
    });
  }
  STDMETHODIMP AbortSubmit(ULONG, LPENTRYID, ULONG) override {
    return Answer("IMsgStore::AbortSubmit", MAPI_E_NO_SUPPORT);
  }
  STDMETHODIMP GetOutgoingQueue(ULONG, LPMAPITABLE*) override {
    return Answer("IMsgStore::GetOutgoingQueue", MAPI_E_NO_SUPPORT);
  }
  STDMETHODIMP SetLockState(LPMESSAGE, ULONG) override { return Answer("IMsgStore::SetLockState", MAPI_E_NO_SUPPORT); }
  STDMETHODIMP FinishedMsg(ULONG, ULONG, LPENTRYID) override {
    return Answer("IMsgStore::FinishedMsg", MAPI_E_NO_SUPPORT);
  }
  STDMETHODIMP NotifyNewMail(LPNOTIFICATION) override { return Answer("IMsgStore::NotifyNewMail", MAPI_E_NO_SUPPORT); }

 protected:
  bool Implements(REFIID iid) const override { return iid == IID_IMsgStore || PropObject::Implements(iid); }
};

}  // namespace

Ref<IMsgStore> MakeStore(std::shared_ptr<StoreFile> file) {
  return Ref<IMsgStore>(new Store(file));
}

void OpenEntry(const std::shared_ptr<StoreFile>& file, ULONG size, LPENTRYID entry_id, LPCIID iid, ULONG flags,
               ULONG* object_type, LPUNKNOWN* object) {
  Require(object != nullptr, MAPI_E_INVALID_PARAMETER);
  Require(!(flags & MAPI_MODIFY) || (flags & MAPI_BEST_ACCESS), MAPI_E_NO_ACCESS);
  const vault::Nid nid = file->NodeOf(size, entry_id);
  ULONG type = MAPI_FOLDER;
  switch (vault::TypeOf(nid)) {
    case vault::NidType::kFolder:
    case vault::NidType::kSearchFolder:
      HandOut(MakeFolder(file, nid), iid, object);
      break;
    case vault::NidType::kMessage:
    case vault::NidType::kAssociatedMessage:
      type = MAPI_MESSAGE;
      HandOut(MakeMessage(file, file->store().OpenMessage(nid)), iid, object);
      break;
    default:
      Fail(MAPI_E_NOT_FOUND);
  }
  if (object_type) *object_type = type;
}

bool SameEntry(ULONG size_a, const void* a, ULONG size_b, const void* b) {
  constexpr ULONG kItemId = sizeof(vault::EntryId);
  Require((a || !size_a) && (b || !size_b), MAPI_E_INVALID_PARAMETER);
  if (size_a >= kItemId && size_b >= kItemId) {
    // A store's own id is longer, and agrees with another's in its first 24 bytes.
    const auto* wrapped = static_cast<const std::uint8_t*>(a);
    const std::vector<std::uint8_t> store = StoreEntryId({});
    if (std::memcmp(wrapped, store.data(), kItemId) != 0) return std::memcmp(a, b, kItemId) == 0;
  }
  return size_a == size_b && (!size_a || std::memcmp(a, b, size_a) == 0);
}

}  // namespace provider
