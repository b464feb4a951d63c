// The temporary file of an attachment, by the way its content is stored.
#include <windows.h>

#include <objbase.h>

#include <mapiguid.h>
#include <shlwapi.h>

#include "module/core/SCLog.h"
#include "module/protocol/TemporaryFile.h"
#include "module/protocol/UrlAccessor.h"

using Microsoft::WRL::ComPtr;

namespace {

constexpr wchar_t kLogSource[] = L".\\UrlAccessor";

// The four messages under which the steps of a copy fail.
struct CopyLines {
  logging::Format<HRESULT> stat, create, copy, commit;
};
constexpr CopyLines kValueLines = {
    L"CUrlAccessor::Init() - Stat on value-attachment failed with [0x%08lX]",
    L"CUrlAccessor::Init() - SHCreateStreamOnFile for value-attachment failed with [0x%08lX]",
    L"CUrlAccessor::Init() - CopyTo on value-attachment stream failed with [0x%08lX]",
    L"CUrlAccessor::Init() - Commit for value-attachment failed with [0x%08lX]"};
constexpr CopyLines kOleLines = {
    L"CUrlAccessor::Init() - Stat for OLE-attachment failed with [0x%08lX]",
    L"CUrlAccessor::Init() - SHCreateStreamOnFile for OLE-attachment failed with [0x%08lX]",
    L"CUrlAccessor::Init() - CopyTo for OLE-attachment failed with [0x%08lX]",
    L"CUrlAccessor::Init() - Commit for OLE-attachment failed with [0x%08lX]"};

// Opens a property as an object. A success that hands none out is a failure.
template <class Object>
HRESULT Open(IAttach* attachment, ULONG tag, REFIID iid, ComPtr<Object>& object) {
  const HRESULT hr =
      attachment->OpenProperty(tag, &iid, 0, 0, reinterpret_cast<LPUNKNOWN*>(object.ReleaseAndGetAddressOf()));
  return SUCCEEDED(hr) && !object ? E_FAIL : hr;
}

HRESULT CopyStream(IStream* from, const std::wstring& path, const CopyLines& lines, ULONGLONG* size) {
  STATSTG stat = {};
  HRESULT hr = from->Stat(&stat, STATFLAG_NONAME);
  if (FAILED(hr)) {
    ZK_LOG(lines.stat, hr);
    return hr;
  }
  *size = stat.cbSize.QuadPart;
  ComPtr<IStream> to;
  hr = SHCreateStreamOnFileW(path.c_str(), STGM_CREATE | STGM_WRITE | STGM_SHARE_EXCLUSIVE, &to);
  if (FAILED(hr)) {
    ZK_LOG(lines.create, hr);
    return hr;
  }
  hr = from->CopyTo(to.Get(), stat.cbSize, nullptr, nullptr);
  if (FAILED(hr)) {
    ZK_LOG(lines.copy, hr);
    return hr;
  }
  hr = to->Commit(STGC_DEFAULT);
  if (FAILED(hr)) {
    ZK_LOG(lines.commit, hr);
    return hr;
  }
  // A stream that ends early would leave a file that looks whole. The file itself tells, since not every stream counts
  // what it has copied.
  STATSTG copied = {};
  hr = to->Stat(&copied, STATFLAG_NONAME);
  if (SUCCEEDED(hr) && copied.cbSize.QuadPart != stat.cbSize.QuadPart) hr = HRESULT_FROM_WIN32(ERROR_HANDLE_EOF);
  if (FAILED(hr)) ZK_LOG(lines.copy, hr);
  return FAILED(hr) ? hr : S_OK;
}

}  // namespace

HRESULT CUrlAccessor::CopyAttachment(IAttach* attachment, LONG method) {
  switch (method) {
    case ATTACH_BY_VALUE:
      return CopyValue(attachment);
    case ATTACH_BY_REFERENCE:
    case ATTACH_BY_REF_RESOLVE:
    case ATTACH_BY_REF_ONLY:
      // The path comes from mail. A mail must not make the indexer read a file or a network share.
      ZK_LOG(L"CUrlAccessor::Init() - GetProps for ref-attachment failed with [0x%08lX]", MAPI_E_NO_SUPPORT);
      return MAPI_E_NO_SUPPORT;
    case ATTACH_OLE:
      return CopyOle(attachment);
    case ATTACH_EMBEDDED_MSG: {
      ComPtr<IMessage> embedded;
      const HRESULT hr = Open(attachment, PR_ATTACH_DATA_OBJ, IID_IMessage, embedded);
      if (FAILED(hr)) {
        ZK_LOG(L"CUrlAccessor::Init() - OpenProperty embedded-msg-attachment failed with [0x%08lX]", hr);
        return hr;
      }
      return CopyMessage(embedded.Get());
    }
    default:
      ZK_LOG(L"CUrlAccessor::Init() - Attachment is stored by a method that is not known [%ld]", method);
      return E_FAIL;
  }
}

HRESULT CUrlAccessor::CopyMessage(IMessage* embedded) {
  // Its display name is a subject, which may end in anything.
  temporary_file_ = WithExtension(std::move(temporary_file_), L".msg");
  const HRESULT hr = CMapiForWDS::SaveToMSG(temporary_file_, embedded);
  if (FAILED(hr)) return hr;
  MeasureFile();
  return S_OK;
}

HRESULT CUrlAccessor::CopyValue(IAttach* attachment) {
  ComPtr<IStream> stream;
  const HRESULT hr = Open(attachment, PR_ATTACH_DATA_BIN, IID_IStream, stream);
  if (FAILED(hr)) {
    ZK_LOG(L"CUrlAccessor::Init() - OpenProperty on value-attachment failed with [0x%08lX]", hr);
    return hr;
  }
  return CopyStream(stream.Get(), temporary_file_, kValueLines, &item_size_);
}

HRESULT CUrlAccessor::CopyOle(IAttach* attachment) {
  static constexpr struct {
    const IID* iid;
    logging::Format<HRESULT> failed;
  } kStreams[] = {
      {&IID_IStreamDocfile,
       L"CUrlAccessor::Init() - OpenProperty with StreamDocFile for OLE-attachment failed with [0x%08lX]"},
      {&IID_IStream, L"CUrlAccessor::Init() - OpenProperty with Stream for OLE-attachment failed with [0x%08lX]"}};
  for (const auto& kind : kStreams) {
    ComPtr<IStream> stream;
    const HRESULT hr = Open(attachment, PR_ATTACH_DATA_OBJ, *kind.iid, stream);
    if (SUCCEEDED(hr)) return CopyStream(stream.Get(), temporary_file_, kOleLines, &item_size_);
    ZK_LOG(kind.failed, hr);
  }
  ComPtr<IStorage> storage;
  const HRESULT hr = Open(attachment, PR_ATTACH_DATA_OBJ, IID_IStorage, storage);
  if (SUCCEEDED(hr)) return CopyStorage(storage.Get());
  ZK_LOG(L"CUrlAccessor::Init() - OpenProperty with Storage for OLE-attachment failed with [0x%08lX]", hr);
  return hr;
}

HRESULT CUrlAccessor::CopyStorage(IStorage* storage) {
  // StgOpenStorage opens what exists: the compound file is made first, and let go.
  ComPtr<IStorage> file;
  HRESULT hr = StgCreateDocfile(temporary_file_.c_str(), STGM_CREATE | STGM_READWRITE | STGM_SHARE_EXCLUSIVE, 0, &file);
  file.Reset();
  if (SUCCEEDED(hr))
    hr = StgOpenStorage(temporary_file_.c_str(), nullptr, STGM_READWRITE | STGM_SHARE_EXCLUSIVE, nullptr, 0, &file);
  if (FAILED(hr)) {
    ZK_LOG(L"CUrlAccessor::Init() - StgOpenStorage for OLE-attachment failed with [0x%08lX]", hr);
    return hr;
  }
  hr = storage->CopyTo(0, nullptr, nullptr, file.Get());
  if (FAILED(hr)) {
    ZK_LOG(L"CUrlAccessor::Init() - CopyTo with IStorage for OLE-attachment failed with [0x%08lX]", hr);
    return hr;
  }
  hr = file->Commit(STGC_DEFAULT);
  if (FAILED(hr)) {
    ZK_LOG(L"CUrlAccessor::Init() - Commit  with IStorage for OLE-attachment failed with [0x%08lX]", hr);
    return hr;
  }
  file.Reset();
  MeasureFile();
  return S_OK;
}

void CUrlAccessor::MeasureFile() {
  WIN32_FILE_ATTRIBUTE_DATA data;
  if (GetFileAttributesExW(temporary_file_.c_str(), GetFileExInfoStandard, &data))
    item_size_ = (static_cast<ULONGLONG>(data.nFileSizeHigh) << 32) | data.nFileSizeLow;
}
