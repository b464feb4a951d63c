// IMAPIProp over a property bag: the part that stores, folders, messages and attachments share.
#pragma once

#include <algorithm>
#include <memory>

#include "provider/object.h"
#include "provider/property.h"
#include "provider/stream.h"

namespace provider {

class StoreFile;

// Bodies of the IMAPIProp methods; they throw.
HRESULT GetProps(PropertyBag& bag, LPSPropTagArray tags, ULONG flags, ULONG* count, LPSPropValue* values);
void GetPropList(PropertyBag& bag, ULONG flags, LPSPropTagArray* tags);
// A string, binary or object property as IStream. Throws MAPI_E_NOT_FOUND, MAPI_E_INTERFACE_NOT_SUPPORTED.
Ref<IStream> OpenStream(PropertyBag& bag, ULONG tag, ULONG flags);
HRESULT GetNamesFromIds(StoreFile& file, PropertyBag& bag, LPSPropTagArray* tags, LPGUID set, ULONG flags, ULONG* count,
                        LPMAPINAMEID** names);
HRESULT GetIdsFromNames(StoreFile& file, ULONG count, LPMAPINAMEID* names, ULONG flags, LPSPropTagArray* tags);
template <class Interface>
class PropObject : public Object<Interface> {
 public:
  STDMETHODIMP GetLastError(HRESULT code, ULONG flags, LPMAPIERROR* error) override {
    return this->LastError("IMAPIProp::GetLastError", code, flags, error);
  }
  STDMETHODIMP SaveChanges(ULONG) override { return this->Answer("IMAPIProp::SaveChanges", MAPI_E_NO_ACCESS); }
  STDMETHODIMP GetProps(LPSPropTagArray tags, ULONG flags, ULONG* count, LPSPropValue* values) override {
    return this->Guarded(
        "IMAPIProp::GetProps",
        [&](const Call& call) {
          const HRESULT result = provider::GetProps(*properties_, tags, flags, count, values);
          call.Spoil(*count, *values);
          return result;
        },
        count, values);
  }
  STDMETHODIMP GetPropList(ULONG flags, LPSPropTagArray* tags) override {
    return this->Guarded(
        "IMAPIProp::GetPropList", [&] { provider::GetPropList(*properties_, flags, tags); }, tags);
  }
  STDMETHODIMP OpenProperty(ULONG tag, LPCIID iid, ULONG, ULONG flags, LPUNKNOWN* object) override {
    return this->Guarded(
        "IMAPIProp::OpenProperty",
        [&] {
          Require(object != nullptr && iid != nullptr, MAPI_E_INVALID_PARAMETER);
          Require(!(flags & (MAPI_MODIFY | MAPI_CREATE)), MAPI_E_NO_ACCESS);
          OpenPropertyAs(tag, *iid, flags, object);
        },
        object);
  }
  STDMETHODIMP SetProps(ULONG, LPSPropValue, LPSPropProblemArray* problems) override {
    return this->Answer("IMAPIProp::SetProps", MAPI_E_NO_ACCESS, problems);
  }
  STDMETHODIMP DeleteProps(LPSPropTagArray, LPSPropProblemArray* problems) override {
    return this->Answer("IMAPIProp::DeleteProps", MAPI_E_NO_ACCESS, problems);
  }
  STDMETHODIMP CopyTo(ULONG, LPCIID, LPSPropTagArray, ULONG, LPMAPIPROGRESS, LPCIID, LPVOID, ULONG,
                      LPSPropProblemArray* problems) override {
    return this->Answer("IMAPIProp::CopyTo", MAPI_E_NO_SUPPORT, problems);
  }
  STDMETHODIMP CopyProps(LPSPropTagArray, ULONG, LPMAPIPROGRESS, LPCIID, LPVOID, ULONG,
                         LPSPropProblemArray* problems) override {
    return this->Answer("IMAPIProp::CopyProps", MAPI_E_NO_SUPPORT, problems);
  }
  STDMETHODIMP GetNamesFromIDs(LPSPropTagArray* tags, LPGUID set, ULONG flags, ULONG* count,
                               LPMAPINAMEID** names) override {
    return this->Guarded(
        "IMAPIProp::GetNamesFromIDs",
        [&] {
          Require(file_ != nullptr, MAPI_E_NO_SUPPORT);
          return GetNamesFromIds(*file_, *properties_, tags, set, flags, count, names);
        },
        count, names);
  }
  STDMETHODIMP GetIDsFromNames(ULONG count, LPMAPINAMEID* names, ULONG flags, LPSPropTagArray* tags) override {
    return this->Guarded(
        "IMAPIProp::GetIDsFromNames",
        [&] {
          Require(file_ != nullptr, MAPI_E_NO_SUPPORT);
          return GetIdsFromNames(*file_, count, names, flags, tags);
        },
        tags);
  }

 protected:
  PropObject(Kind kind, std::shared_ptr<StoreFile> file, std::shared_ptr<PropertyBag> properties)
      : Object<Interface>(kind), file_(std::move(file)), properties_(std::move(properties)) {}

  bool Implements(REFIID iid) const override { return iid == IID_IMAPIProp; }
  virtual void OpenPropertyAs(ULONG tag, REFIID iid, ULONG flags, LPUNKNOWN* object) {
    Require(iid == IID_IStream, MAPI_E_INTERFACE_NOT_SUPPORTED);
    *object = OpenStream(*properties_, tag, flags).Detach();
  }
  std::shared_ptr<StoreFile> file_;  // null for objects outside a store

 private:
  std::shared_ptr<PropertyBag> properties_;
};

}  // namespace provider
