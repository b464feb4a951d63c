// Messages on their way out: as a MIME stream and as a .msg file.
#include <objbase.h>

#include <mapiguid.h>

#include "module/core/HoardexURL.h"
#include "module/core/SCLog.h"
#include "module/mapi/MapiForWDS.h"
#include "platform/converter.h"

using Microsoft::WRL::ComPtr;

namespace {

constexpr wchar_t kLogSource[] = L".\\MapiForWDS";
constexpr CLSID kMailMessageClass = {0x00020D0B, 0x0000, 0x0000, {0xC0, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x46}};

// What the client makes anew when it opens the file.
constexpr SizedSPropTagArray(7, kNotCopied) = {
    7,
    {PR_ACCESS, PR_BODY_W, PR_RTF_SYNC_BODY_COUNT, PR_RTF_SYNC_BODY_CRC, PR_RTF_SYNC_BODY_TAG_W,
     PR_RTF_SYNC_PREFIX_COUNT, PR_RTF_SYNC_TRAILING_COUNT}};

class IMsgSession {
 public:
  ~IMsgSession() {
    if (session_) mapi::CloseIMsgSession(session_);
  }
  HRESULT Open(LPMALLOC malloc) { return mapi::OpenIMsgSession(malloc, 0, &session_); }
  LPMSGSESS get() const { return session_; }

 private:
  LPMSGSESS session_ = nullptr;
};

SCODE STDMETHODCALLTYPE Allocate(ULONG size, LPVOID* buffer) {
  return mapi::MAPIAllocateBuffer(size, buffer);
}
SCODE STDMETHODCALLTYPE AllocateMore(ULONG size, LPVOID parent, LPVOID* buffer) {
  return mapi::MAPIAllocateMore(size, parent, buffer);
}
ULONG STDMETHODCALLTYPE Free(LPVOID buffer) {
  return mapi::MAPIFreeBuffer(buffer);
}

HRESULT OpenOnStorage(const IMsgSession& session, LPMALLOC malloc, IStorage* storage, ULONG flags,
                      ComPtr<IMessage>& message) {
  const HRESULT hr = mapi::OpenIMsgOnIStg(session.get(), Allocate, AllocateMore, Free, malloc, nullptr, storage,
                                          nullptr, 0, flags, message.ReleaseAndGetAddressOf());
  return SUCCEEDED(hr) && !message ? E_FAIL : hr;
}

// One setting of the converter.
struct Setting {
  logging::Format<HRESULT> failed;
  HRESULT (*apply)(IConverterSession*, LPADRBOOK);
};
constexpr Setting kSettings[] = {
    {L"CMapiForWDS::GetMimeStreamFromMessageURL() - IConverterSession::SetAdrBook failed, hr = [0x%08lX]",
     [](IConverterSession* converter, LPADRBOOK book) { return converter->SetAdrBook(book); }},
    {L"CMapiForWDS::GetMimeStreamFromMessageURL() - IConverterSession::SetEncoding  failed, hr = [0x%08lX]",
     [](IConverterSession* converter, LPADRBOOK) { return converter->SetEncoding(IET_BASE64); }},
    {L"CMapiForWDS::GetMimeStreamFromMessageURL() - IConverterSession::SetSaveFormat failed, hr = [0x%08lX]",
     [](IConverterSession* converter, LPADRBOOK) { return converter->SetSaveFormat(SAVE_RFC1521); }},
    {L"CMapiForWDS::GetMimeStreamFromMessageURL() - IConverterSession::SetTextWrapping failed, hr = [0x%08lX]",
     [](IConverterSession* converter, LPADRBOOK) { return converter->SetTextWrapping(TRUE, 0); }},
};

}  // namespace

HRESULT CMapiForWDS::GetMimeStreamFromMessageURL(const std::wstring& url, IStream** stream) {
  *stream = nullptr;
  if (url.empty()) {
    ZK_LOG(L"CMapiForWDS::GetMimeStreamFromMessageURL() - Invalid URL provided");
    return E_INVALIDARG;
  }
  const std::wstring message_url = url::WithoutSize(url::MessageOfAttachment(url));
  ComPtr<IMessage> message;
  HRESULT hr = GetMsgFromURL(message_url, &message);
  if (FAILED(hr) || !message) {
    ZK_LOG(L"CMapiForWDS::GetMimeStreamFromMessageURL() : hr = 0x%08lX, Failed to create IMessage object for url - %s",
           hr, url.c_str());
    return FAILED(hr) ? hr : E_FAIL;
  }
  ComPtr<IConverterSession> converter;
  hr = CoCreateInstance(CLSID_IConverterSession, nullptr, CLSCTX_INPROC_SERVER, __uuidof(IConverterSession),
                        reinterpret_cast<void**>(converter.GetAddressOf()));
  if (FAILED(hr)) {
    ZK_LOG(L"CMapiForWDS::GetMimeStreamFromMessageURL() - Failed to create IConverterSession object, hr = [0x%08lX]",
           hr);
    return hr;
  }
  if (!session_) {
    ZK_LOG(L"CMapiForWDS::GetMimeStreamFromMessageURL() - Error - IMAPISession is null");
    return E_FAIL;
  }
  ComPtr<IAddrBook> book;
  hr = session_->OpenAddressBook(0, nullptr, 0, book.GetAddressOf());
  if (FAILED(hr)) {
    ZK_LOG(L"CMapiForWDS::GetMimeStreamFromMessageURL() - IMAPISession::OpenAddressBook failed, hr = [0x%08lX]", hr);
    return hr;
  }
  for (const Setting& setting : kSettings) {
    hr = setting.apply(converter.Get(), book.Get());
    if (SUCCEEDED(hr)) continue;
    ZK_LOG(setting.failed, hr);
    return hr;
  }
  ComPtr<IStream> mime;
  hr = CreateStreamOnHGlobal(nullptr, TRUE, &mime);
  if (FAILED(hr)) {
    ZK_LOG(L"CMapiForWDS::GetMimeStreamFromMessageURL() - SHCreateStreamOnFile failed, hr = [0x%08lX]", hr);
    return hr;
  }
  hr = converter->MAPIToMIMEStm(message.Get(), mime.Get(), CCSF_SMTP);
  if (FAILED(hr)) {
    ZK_LOG(L"CMapiForWDS::GetMimeStreamFromMessageURL() - IConverterSession::MAPIToMIMEStm failed, hr = [0x%08lX]", hr);
    return hr;
  }
  *stream = mime.Detach();
  ZK_LOG(L"CMapiForWDS::GetMimeStreamFromMessageURL() - Success in getting MIME IStream for message url - %s",
         message_url.c_str());
  return S_OK;
}

HRESULT CMapiForWDS::SaveToMSG(const std::wstring& path, LPMESSAGE source) {
  const LPMALLOC malloc = mapi::MAPIGetDefaultMalloc();
  // Let go in the opposite order: the storage, the message, which holds the storage too, and the session last.
  IMsgSession session;
  ComPtr<IMessage> message;
  ComPtr<IStorage> storage;
  HRESULT hr =
      StgCreateDocfile(path.c_str(), STGM_TRANSACTED | STGM_CREATE | STGM_READWRITE, 0, storage.GetAddressOf());
  if (FAILED(hr)) {
    ZK_LOG(L"CMapiForWDS::SaveToMSG() - StgCreateDocfile failed with [0x%08lX]", hr);
    return hr;
  }
  hr = session.Open(malloc);
  if (FAILED(hr)) {
    ZK_LOG(L"CMapiForWDS::SaveToMSG() - OpenIMsgSession failed with [0x%08lX]", hr);
    return hr;
  }
  hr = OpenOnStorage(session, malloc, storage.Get(), MAPI_UNICODE, message);
  ZK_LOG(L"CMapiForWDS::SaveToMSG() - Unicode OpenIMsgOnIStg returned with [0x%08lX]", hr);
  if (FAILED(hr)) {
    hr = OpenOnStorage(session, malloc, storage.Get(), 0, message);
    ZK_LOG(L"CMapiForWDS::SaveToMSG() - ANSI OpenIMsgOnIStg returned with [0x%08lX]", hr);
    if (FAILED(hr)) return hr;
  }
  hr = WriteClassStg(storage.Get(), kMailMessageClass);
  if (FAILED(hr)) {
    ZK_LOG(L"CMapiForWDS::SaveToMSG() - WriteClassStg failed with [0x%08lX]", hr);
    return hr;
  }
  auto excluded = kNotCopied;
  hr = source->CopyTo(0, nullptr, reinterpret_cast<LPSPropTagArray>(&excluded), 0, nullptr, &IID_IMessage,
                      message.Get(), 0, nullptr);
  if (FAILED(hr)) {
    ZK_LOG(L"CMapiForWDS::SaveToMSG() - CopyTo failed with [0x%08lX]", hr);
    return hr;
  }
  hr = message->SaveChanges(KEEP_OPEN_READWRITE);
  if (FAILED(hr)) {
    ZK_LOG(L"CMapiForWDS::SaveToMSG() - SaveChanges failed with [0x%08lX]", hr);
    return hr;
  }
  hr = storage->Commit(STGC_DEFAULT);
  if (FAILED(hr)) ZK_LOG(L"CMapiForWDS::SaveToMSG() - Commit failed with [0x%08lX]", hr);
  return hr;
}
