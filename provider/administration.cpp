#include "provider/session.h"
#include "provider/table.h"

namespace provider {
namespace {

using vault::MakeTag;
using vault::PropType;

class ServiceAdmin : public Object<IMsgServiceAdmin> {
 public:
  explicit ServiceAdmin(std::shared_ptr<Profile> profile) : Object(Kind::kServiceAdmin), profile_(std::move(profile)) {}

  STDMETHODIMP GetLastError(HRESULT code, ULONG flags, LPMAPIERROR* error) override {
    return LastError("IMsgServiceAdmin::GetLastError", code, flags, error);
  }
  STDMETHODIMP GetMsgServiceTable(ULONG flags, LPMAPITABLE* table) override {
    return Guarded(
        "IMsgServiceAdmin::GetMsgServiceTable",
        [&] {
          Require(table != nullptr, MAPI_E_INVALID_PARAMETER);
          auto rows = std::make_shared<FixedRows>(
              std::vector<vault::PropTag>{PR_SERVICE_UID, PR_DISPLAY_NAME_W, PR_SERVICE_NAME_W, PR_INSTANCE_KEY});
          for (const Service& service : profile_->services()) {
            const std::vector<std::uint8_t> uid(service.uid.ab, service.uid.ab + sizeof service.uid.ab);
            std::vector<Value> row;
            row.push_back(Value::Owned(PR_SERVICE_UID, uid));
            row.push_back(Value::Text(PROP_ID(PR_DISPLAY_NAME), service.display));
            row.push_back(Value::Text(PROP_ID(PR_SERVICE_NAME), service.name));
            row.push_back(Value::Owned(PR_INSTANCE_KEY, uid));
            rows->Add(std::move(row));
          }
          *table = MakeTable(std::move(rows), flags).Detach();
        },
        table);
  }
  STDMETHODIMP CreateMsgService(LPTSTR service, LPTSTR display, ULONG_PTR, ULONG flags) override {
    return Guarded("IMsgServiceAdmin::CreateMsgService", [&] {
      Require(service != nullptr, MAPI_E_INVALID_PARAMETER);
      const std::u16string name = FromCaller(service, flags);
      profile_->Add(name, display ? FromCaller(display, flags) : name);
    });
  }
  STDMETHODIMP DeleteMsgService(LPMAPIUID uid) override {
    return Guarded("IMsgServiceAdmin::DeleteMsgService", [&] {
      Require(uid != nullptr, MAPI_E_INVALID_PARAMETER);
      profile_->Remove(*uid);
    });
  }
  STDMETHODIMP CopyMsgService(LPMAPIUID, LPTSTR, LPCIID, LPCIID, LPVOID, ULONG_PTR, ULONG) override {
    return Answer("IMsgServiceAdmin::CopyMsgService", MAPI_E_NO_SUPPORT);
  }
  STDMETHODIMP RenameMsgService(LPMAPIUID uid, ULONG flags, LPTSTR display) override {
    return Guarded("IMsgServiceAdmin::RenameMsgService", [&] {
      Require(uid && display, MAPI_E_INVALID_PARAMETER);
      profile_->Rename(*uid, FromCaller(display, flags));
    });
  }
  STDMETHODIMP ConfigureMsgService(LPMAPIUID uid, ULONG_PTR, ULONG, ULONG count, LPSPropValue values) override {
    return Guarded("IMsgServiceAdmin::ConfigureMsgService", [&] {
      Require(uid && (values || !count), MAPI_E_INVALID_PARAMETER);
      std::u16string path;
      for (ULONG i = 0; i < count; ++i) {
        if (values[i].ulPropTag == PR_PST_FILENAME_W) path = FromCaller(values[i].Value.lpszW, MAPI_UNICODE);
        if (values[i].ulPropTag == PR_PST_FILENAME_A) path = FromCaller(values[i].Value.lpszA, 0);
      }
      if (path.empty()) Fail(MAPI_E_UNCONFIGURED, "The service needs the path of a store file");
      profile_->Configure(*uid, path);
    });
  }
  STDMETHODIMP OpenProfileSection(LPMAPIUID, LPCIID, ULONG, LPPROFSECT*) override {
    return Answer("IMsgServiceAdmin::OpenProfileSection", MAPI_E_NO_SUPPORT);
  }
  STDMETHODIMP MsgServiceTransportOrder(ULONG, LPMAPIUID, ULONG) override {
    return Answer("IMsgServiceAdmin::MsgServiceTransportOrder", MAPI_E_NO_SUPPORT);
  }
  STDMETHODIMP AdminProviders(LPMAPIUID, ULONG, LPPROVIDERADMIN*) override {
    return Answer("IMsgServiceAdmin::AdminProviders", MAPI_E_NO_SUPPORT);
  }
  STDMETHODIMP SetPrimaryIdentity(LPMAPIUID, ULONG) override {
    return Answer("IMsgServiceAdmin::SetPrimaryIdentity", MAPI_E_NO_SUPPORT);
  }
  STDMETHODIMP GetProviderTable(ULONG, LPMAPITABLE*) override {
    return Answer("IMsgServiceAdmin::GetProviderTable", MAPI_E_NO_SUPPORT);
  }

 protected:
  bool Implements(REFIID iid) const override { return iid == IID_IMsgServiceAdmin; }

 private:
  const std::shared_ptr<Profile> profile_;
};

class ProfileAdmin : public Object<IProfAdmin> {
 public:
  ProfileAdmin() : Object(Kind::kProfileAdmin) {}

  STDMETHODIMP GetLastError(HRESULT code, ULONG flags, LPMAPIERROR* error) override {
    return LastError("IProfAdmin::GetLastError", code, flags, error);
  }
  STDMETHODIMP GetProfileTable(ULONG flags, LPMAPITABLE* table) override {
    return Guarded(
        "IProfAdmin::GetProfileTable",
        [&] {
          Require(table != nullptr, MAPI_E_INVALID_PARAMETER);
          auto rows = std::make_shared<FixedRows>(std::vector<vault::PropTag>{PR_DISPLAY_NAME_W, PR_DEFAULT_PROFILE});
          const std::u16string standard = profiles::Default();
          for (const std::u16string& name : profiles::Names()) {
            std::vector<Value> row;
            row.push_back(Value::Text(PROP_ID(PR_DISPLAY_NAME), name));
            row.push_back(Value::Bool(PROP_ID(PR_DEFAULT_PROFILE), name == standard));
            rows->Add(std::move(row));
          }
          *table = MakeTable(std::move(rows), flags).Detach();
        },
        table);
  }
  STDMETHODIMP CreateProfile(LPTSTR name, LPTSTR, ULONG_PTR, ULONG flags) override {
    return Guarded("IProfAdmin::CreateProfile", [&] {
      const std::u16string wanted = FromCaller(name, flags);
      try {
        profiles::Create(wanted);
      } catch (const Failure& failure) {
        if (failure.code != MAPI_E_NO_ACCESS) throw;
        Fail(MAPI_E_NO_ACCESS, "There is already a profile named \"" + vault::Utf8FromUtf16(wanted) + "\"");
      }
    });
  }
  STDMETHODIMP DeleteProfile(LPTSTR name, ULONG flags) override {
    return Guarded("IProfAdmin::DeleteProfile", [&] { profiles::Delete(FromCaller(name, flags)); });
  }
  STDMETHODIMP ChangeProfilePassword(LPTSTR, LPTSTR, LPTSTR, ULONG) override {
    return Answer("IProfAdmin::ChangeProfilePassword", MAPI_E_NO_SUPPORT);
  }
  STDMETHODIMP CopyProfile(LPTSTR, LPTSTR, LPTSTR, ULONG_PTR, ULONG) override {
    return Answer("IProfAdmin::CopyProfile", MAPI_E_NO_SUPPORT);
  }
  STDMETHODIMP RenameProfile(LPTSTR, LPTSTR, LPTSTR, ULONG_PTR, ULONG) override {
    return Answer("IProfAdmin::RenameProfile", MAPI_E_NO_SUPPORT);
  }
  STDMETHODIMP SetDefaultProfile(LPTSTR name, ULONG flags) override {
    return Guarded("IProfAdmin::SetDefaultProfile", [&] { profiles::SetDefault(FromCaller(name, flags)); });
  }
  STDMETHODIMP AdminServices(LPTSTR name, LPTSTR, ULONG_PTR, ULONG flags, LPSERVICEADMIN* admin) override {
    return Guarded(
        "IProfAdmin::AdminServices",
        [&] {
          Require(admin != nullptr, MAPI_E_INVALID_PARAMETER);
          auto profile = profiles::OpenForAdministration(FromCaller(name, flags));
          Require(profile != nullptr, MAPI_E_NOT_FOUND);
          *admin = MakeServiceAdmin(std::move(profile)).Detach();
        },
        admin);
  }

 protected:
  bool Implements(REFIID iid) const override { return iid == IID_IProfAdmin; }
};

}  // namespace

Ref<IProfAdmin> MakeProfileAdmin() {
  return Ref<IProfAdmin>(new ProfileAdmin);
}
Ref<IMsgServiceAdmin> MakeServiceAdmin(std::shared_ptr<Profile> profile) {
  return Ref<IMsgServiceAdmin>(new ServiceAdmin(std::move(profile)));
}

}  // namespace provider
