// One item URL as the indexer sees it: container or not, size, time, and a filter over it.
#pragma once

#include <windows.h>

#include <wrl/client.h>

#include <memory>
#include <string>

#include "module/core/ComObject.h"
#include "module/core/HoardexURL.h"
#include "module/mapi/MapiForWDS.h"
#include "platform/searchapi.h"

// Lives from CreateAccessor to CloseAccessor, used by one thread at a time. Shares the vault session; owns the
// temporary copy of an attachment until CloseAccessor deletes it.
class CUrlAccessor final : public ComObject<IUrlAccessor> {
 public:
  // Prepares the item: opens its vault, reads the message, or copies the attachment's content to a temporary file. A
  // copy that was begun is removed again when this fails.
  HRESULT Init(LPCWSTR url, AUTHENTICATION_INFO* authentication, INCREMENTAL_ACCESS_INFO* incremental, ITEM_INFO* item,
               IProtocolHandlerSite* site);

  bool has_temporary_file() const { return has_temporary_file_; }
  const std::wstring& temporary_file() const { return temporary_file_; }

  // IUrlAccessor
  STDMETHODIMP AddRequestParameter(PROPSPEC*, PROPVARIANT*) override { return E_NOTIMPL; }
  STDMETHODIMP GetDocFormat(WCHAR[], DWORD, DWORD* length) override { return NotImplemented(length); }
  STDMETHODIMP GetCLSID(CLSID* clsid) override { return NotImplemented(clsid); }
  STDMETHODIMP GetHost(WCHAR[], DWORD, DWORD* length) override { return NotImplemented(length); }
  STDMETHODIMP IsDirectory() override;
  STDMETHODIMP GetSize(ULONGLONG* size) override;
  STDMETHODIMP GetLastModified(FILETIME* time) override;
  STDMETHODIMP GetFileName(WCHAR[], DWORD, DWORD* length) override { return NotImplemented(length); }
  STDMETHODIMP GetSecurityDescriptor(BYTE*, DWORD, DWORD* length) override { return NotImplemented(length); }
  STDMETHODIMP GetRedirectedURL(WCHAR[], DWORD, DWORD* length) override { return NotImplemented(length); }
  STDMETHODIMP GetSecurityProvider(CLSID* clsid) override { return NotImplemented(clsid); }
  STDMETHODIMP BindToStream(IStream** stream) override { return NotImplemented(stream); }
  STDMETHODIMP BindToFilter(IFilter** filter) override;

 private:
  HRESULT Prepare(LPCWSTR url, IProtocolHandlerSite* site);
  HRESULT PrepareMessage();
  HRESULT PrepareAttachment();
  HRESULT ReadParent(IMessage* message, const std::wstring& display_name);
  HRESULT FindAttachment(IMessage* message, const std::wstring& record_key, ULONG* number);
  HRESULT CopyAttachment(IAttach* attachment, LONG method);
  HRESULT CopyValue(IAttach* attachment);
  HRESULT CopyOle(IAttach* attachment);
  HRESULT CopyStorage(IStorage* storage);
  HRESULT CopyMessage(IMessage* embedded);
  void MeasureFile();

  FILETIME last_modified_ = {};
  bool has_last_modified_ = false;
  std::wstring url_;
  CHoardexURL::Kind kind_ = CHoardexURL::kUnknown;
  Microsoft::WRL::ComPtr<IProtocolHandlerSite> site_;
  std::shared_ptr<CMapiForWDS> mapi_;
  ULONGLONG item_size_ = 0;
  std::wstring temporary_file_;
  bool has_temporary_file_ = false;
  std::wstring attachment_title_;
  FILETIME parent_delivery_time_ = {};
  std::wstring parent_sender_;
};
