#include "provider/session.h"

#include "platform/critical_section.h"
#include "provider/objects.h"
#include "provider/prop_object.h"
#include "provider/table.h"

namespace provider {
namespace {

class Session : public Object<IMAPISession> {
 public:
  explicit Session(std::shared_ptr<Profile> profile) : Object(Kind::kSession), profile_(std::move(profile)) {}

  STDMETHODIMP GetLastError(HRESULT code, ULONG flags, LPMAPIERROR* error) override {
    return LastError("IMAPISession::GetLastError", code, flags, error);
  }
  STDMETHODIMP GetMsgStoresTable(ULONG flags, LPMAPITABLE* table) override {
    return Guarded(
        "IMAPISession::GetMsgStoresTable",
        [&] {
          Require(table != nullptr, MAPI_E_INVALID_PARAMETER);
          auto rows = std::make_shared<FixedRows>(
              std::vector<vault::PropTag>{PR_DEFAULT_STORE, PR_ENTRYID, PR_DISPLAY_NAME_W, PR_RESOURCE_TYPE,
                                          PR_MDB_PROVIDER, PR_SERVICE_UID, PR_INSTANCE_KEY, PR_OBJECT_TYPE});
          for (const Service& service : profile()->services())
            if (!service.path.empty()) rows->Add(StoreRow(service, rows->Count() == 0));
          *table = MakeTable(std::move(rows), flags).Detach();
        },
        table);
  }
  STDMETHODIMP OpenMsgStore(ULONG_PTR, ULONG size, LPENTRYID id, LPCIID iid, ULONG flags, LPMDB* store) override {
    return Guarded(
        "IMAPISession::OpenMsgStore",
        [&] {
          Require(store != nullptr, MAPI_E_INVALID_PARAMETER);
          Require(id && size, MAPI_E_INVALID_ENTRYID);
          Require(!(flags & MDB_WRITE) || (flags & MAPI_BEST_ACCESS), MAPI_E_NO_ACCESS);
          HandOut(MakeStore(profile()->OpenStore(id, size)), iid, store);
        },
        store);
  }
  STDMETHODIMP OpenAddressBook(ULONG_PTR, LPCIID iid, ULONG, LPADRBOOK* book) override {
    return Guarded(
        "IMAPISession::OpenAddressBook",
        [&] {
          profile();
          HandOut(MakeAddressBook(), iid, book);
        },
        book);
  }
  STDMETHODIMP OpenProfileSection(LPMAPIUID, LPCIID, ULONG, LPPROFSECT*) override {
    return Answer("IMAPISession::OpenProfileSection", MAPI_E_NO_SUPPORT);
  }
  STDMETHODIMP GetStatusTable(ULONG, LPMAPITABLE*) override {
    return Answer("IMAPISession::GetStatusTable", MAPI_E_NO_SUPPORT);
  }
  STDMETHODIMP OpenEntry(ULONG size, LPENTRYID id, LPCIID iid, ULONG flags, ULONG* type, LPUNKNOWN* object) override {
    return Guarded(
        "IMAPISession::OpenEntry",
        [&] {
          Require(object != nullptr, MAPI_E_INVALID_PARAMETER);
          provider::OpenEntry(profile()->FileOfItem(id, size), size, id, iid, flags, type, object);
        },
        object, type);
  }
  STDMETHODIMP CompareEntryIDs(ULONG size_a, LPENTRYID a, ULONG size_b, LPENTRYID b, ULONG, ULONG* same) override {
    return Guarded(
        "IMAPISession::CompareEntryIDs",
        [&] {
          Require(same != nullptr, MAPI_E_INVALID_PARAMETER);
          *same = SameEntry(size_a, a, size_b, b);
        },
        same);
  }
  STDMETHODIMP Advise(ULONG, LPENTRYID, ULONG, LPMAPIADVISESINK, ULONG* connection) override {
    return Guarded(
        "IMAPISession::Advise",
        [&] {
          Require(connection != nullptr, MAPI_E_INVALID_PARAMETER);
          *connection = 1;
        },
        connection);
  }
  STDMETHODIMP Unadvise(ULONG) override { return Answer("IMAPISession::Unadvise", S_OK); }
  STDMETHODIMP MessageOptions(ULONG_PTR, ULONG, LPTSTR, LPMESSAGE) override {
    return Answer("IMAPISession::MessageOptions", MAPI_E_NO_SUPPORT);
  }
  STDMETHODIMP QueryDefaultMessageOpt(LPTSTR, ULONG, ULONG*, LPSPropValue*) override {
    return Answer("IMAPISession::QueryDefaultMessageOpt", MAPI_E_NO_SUPPORT);
  }
  STDMETHODIMP EnumAdrTypes(ULONG, ULONG*, LPTSTR**) override {
    return Answer("IMAPISession::EnumAdrTypes", MAPI_E_NO_SUPPORT);
  }
  STDMETHODIMP QueryIdentity(ULONG*, LPENTRYID*) override {
    return Answer("IMAPISession::QueryIdentity", MAPI_E_NOT_FOUND);
  }
  STDMETHODIMP Logoff(ULONG_PTR, ULONG, ULONG) override {
    return Guarded("IMAPISession::Logoff", [&] {
      const std::scoped_lock lock(lock_);
      profile_.reset();
    });
  }
  STDMETHODIMP SetDefaultStore(ULONG, ULONG, LPENTRYID) override {
    return Answer("IMAPISession::SetDefaultStore", MAPI_E_NO_SUPPORT);
  }
  STDMETHODIMP AdminServices(ULONG, LPSERVICEADMIN* admin) override {
    return Guarded(
        "IMAPISession::AdminServices",
        [&] {
          Require(admin != nullptr, MAPI_E_INVALID_PARAMETER);
          *admin = MakeServiceAdmin(profile()).Detach();
        },
        admin);
  }
  STDMETHODIMP ShowForm(ULONG_PTR, LPMDB, LPMAPIFOLDER, LPCIID, ULONG, LPMESSAGE, ULONG, ULONG, ULONG, ULONG,
                        LPSTR) override {
    return Answer("IMAPISession::ShowForm", MAPI_E_NO_SUPPORT);
  }
  STDMETHODIMP PrepareForm(LPCIID, LPMESSAGE, ULONG*) override {
    return Answer("IMAPISession::PrepareForm", MAPI_E_NO_SUPPORT);
  }

 protected:
  bool Implements(REFIID iid) const override { return iid == IID_IMAPISession; }

 private:
  static std::vector<Value> StoreRow(const Service& service, bool first) {
    const std::vector<std::uint8_t> uid(service.uid.ab, service.uid.ab + sizeof service.uid.ab);
    const auto* provider_uid = kStoreProviderUid.ab;
    std::vector<Value> row;
    row.push_back(Value::Bool(PROP_ID(PR_DEFAULT_STORE), first));
    row.push_back(Value::Owned(PR_ENTRYID, StoreEntryId(service.path)));
    row.push_back(Value::Text(PROP_ID(PR_DISPLAY_NAME), service.display));
    row.push_back(Value::Int(PROP_ID(PR_RESOURCE_TYPE), MAPI_STORE_PROVIDER));
    row.push_back(Value::Owned(PR_MDB_PROVIDER, {provider_uid, provider_uid + sizeof kStoreProviderUid.ab}));
    row.push_back(Value::Owned(PR_SERVICE_UID, uid));
    row.push_back(Value::Owned(PR_INSTANCE_KEY, uid));
    row.push_back(Value::Int(PROP_ID(PR_OBJECT_TYPE), MAPI_STORE));
    if (service.file) {
      const vault::Guid& key = service.file->store().uid();
      row.push_back(Value::Owned(PR_RECORD_KEY, {key.begin(), key.end()}));
    }
    return row;
  }

  std::shared_ptr<Profile> profile() {
    const std::scoped_lock lock(lock_);
    Require(profile_ != nullptr, MAPI_E_END_OF_SESSION);
    return profile_;
  }

  CriticalSection lock_;
  std::shared_ptr<Profile> profile_;  // null after Logoff
};

// There are no address lists here; callers that only pass the book on are content with one that answers so.
class AddressBook : public PropObject<IAddrBook> {
 public:
  AddressBook()
      : PropObject(Kind::kAddressBook, nullptr,
                   std::make_shared<FixedProperties>(std::make_shared<const std::vector<Value>>())) {}

  STDMETHODIMP OpenEntry(ULONG, LPENTRYID, LPCIID, ULONG, ULONG*, LPUNKNOWN*) override {
    return Answer("IAddrBook::OpenEntry", MAPI_E_NO_SUPPORT);
  }
  STDMETHODIMP CompareEntryIDs(ULONG size_a, LPENTRYID a, ULONG size_b, LPENTRYID b, ULONG, ULONG* same) override {
    return Guarded(
        "IAddrBook::CompareEntryIDs",
        [&] {
          Require(same != nullptr, MAPI_E_INVALID_PARAMETER);
          *same = SameEntry(size_a, a, size_b, b);
        },
        same);
  }
  STDMETHODIMP Advise(ULONG, LPENTRYID, ULONG, LPMAPIADVISESINK, ULONG*) override {
    return Answer("IAddrBook::Advise", MAPI_E_NO_SUPPORT);
  }
  STDMETHODIMP Unadvise(ULONG) override { return Answer("IAddrBook::Unadvise", S_OK); }
  STDMETHODIMP CreateOneOff(LPTSTR, LPTSTR, LPTSTR, ULONG, ULONG*, LPENTRYID*) override {
    return Answer("IAddrBook::CreateOneOff", MAPI_E_NO_SUPPORT);
  }
  STDMETHODIMP NewEntry(ULONG_PTR, ULONG, ULONG, LPENTRYID, ULONG, LPENTRYID, ULONG*, LPENTRYID*) override {
    return Answer("IAddrBook::NewEntry", MAPI_E_NO_SUPPORT);
  }
  STDMETHODIMP ResolveName(ULONG_PTR, ULONG, LPTSTR, LPADRLIST) override {
    return Answer("IAddrBook::ResolveName", MAPI_E_NO_SUPPORT);
  }
  STDMETHODIMP Address(ULONG_PTR*, LPADRPARM, LPADRLIST*) override {
    return Answer("IAddrBook::Address", MAPI_E_NO_SUPPORT);
  }
  STDMETHODIMP Details(ULONG*, LPFNDISMISS, LPVOID, ULONG, LPENTRYID, LPFNBUTTON, LPVOID, LPTSTR, ULONG) override {
    return Answer("IAddrBook::Details", MAPI_E_NO_SUPPORT);
  }
  STDMETHODIMP RecipOptions(ULONG_PTR, ULONG, LPADRENTRY) override {
    return Answer("IAddrBook::RecipOptions", MAPI_E_NO_SUPPORT);
  }
  STDMETHODIMP QueryDefaultRecipOpt(LPTSTR, ULONG, ULONG*, LPSPropValue*) override {
    return Answer("IAddrBook::QueryDefaultRecipOpt", MAPI_E_NO_SUPPORT);
  }
  STDMETHODIMP GetPAB(ULONG*, LPENTRYID*) override { return Answer("IAddrBook::GetPAB", MAPI_E_NO_SUPPORT); }
  STDMETHODIMP SetPAB(ULONG, LPENTRYID) override { return Answer("IAddrBook::SetPAB", MAPI_E_NO_SUPPORT); }
  STDMETHODIMP GetDefaultDir(ULONG*, LPENTRYID*) override {
    return Answer("IAddrBook::GetDefaultDir", MAPI_E_NO_SUPPORT);
  }
  STDMETHODIMP SetDefaultDir(ULONG, LPENTRYID) override {
    return Answer("IAddrBook::SetDefaultDir", MAPI_E_NO_SUPPORT);
  }
  STDMETHODIMP GetSearchPath(ULONG, LPSRowSet*) override {
    return Answer("IAddrBook::GetSearchPath", MAPI_E_NO_SUPPORT);
  }
  STDMETHODIMP SetSearchPath(ULONG, LPSRowSet) override {
    return Answer("IAddrBook::SetSearchPath", MAPI_E_NO_SUPPORT);
  }
  STDMETHODIMP PrepareRecips(ULONG, LPSPropTagArray, LPADRLIST) override {
    return Answer("IAddrBook::PrepareRecips", MAPI_E_NO_SUPPORT);
  }

 protected:
  bool Implements(REFIID iid) const override { return iid == IID_IAddrBook || PropObject::Implements(iid); }
};

}  // namespace

Ref<IMAPISession> MakeSession(std::shared_ptr<Profile> profile) {
  return Ref<IMAPISession>(new Session(std::move(profile)));
}
Ref<IAddrBook> MakeAddressBook() {
  return Ref<IAddrBook>(new AddressBook);
}

}  // namespace provider
