// What a container holds, and where it stands.
#include <cstring>

#include "module/core/HoardexURL.h"
#include "module/core/SCLog.h"
#include "module/mapi/MapiForWDS.h"

using Microsoft::WRL::ComPtr;

namespace {

constexpr wchar_t kLogSource[] = L".\\MapiForWDS";
using url::kVaultToken;
// Ends the walk to the top when a damaged store's folders are one another's parents.
constexpr int kMaxFolderDepth = 512;

LPENTRYID EntryId(const SBinary& value) {
  return reinterpret_cast<LPENTRYID>(value.lpb);
}

}  // namespace

HRESULT CMapiForWDS::BrowseFolder(const std::wstring& folder_url, std::wstring& path, std::vector<std::wstring>& names,
                                  std::vector<FILETIME>& times) {
  path.clear();
  names.clear();
  times.clear();
  const CHoardexURL parsed(folder_url);
  if (!parsed.IsContainer()) {
    ZK_LOG(L"CMapiForWDS::BrowseFolder() - URL is not a folder");
    return E_FAIL;
  }
  ZK_LOG(L"CMapiForWDS::BrowseFolder() - Browsing for URL [%s]", folder_url.c_str());
  std::vector<std::wstring> tokens;
  if (ExtractURLTokens(folder_url, tokens) < 1) {
    ZK_LOG(L"CMapiForWDS::BrowseFolder() - ExtractURLTokens failed");
    return E_FAIL;
  }
  ComPtr<IMAPIFolder> folder;
  HRESULT hr = OpenContainer(tokens.back(), parsed.IsStore(), &folder);
  if (FAILED(hr)) return hr;
  // Lists that are cut short are not handed out.
  std::vector<std::wstring> listed;
  std::vector<FILETIME> listed_times;
  if (!parsed.IsStore()) {
    hr = GetFolderContents(false, folder.Get(), listed, listed_times);
    if (FAILED(hr)) {
      ZK_LOG(L"CMapiForWDS::BrowseFolder() - GetFolderContents for messages failed with [0x%08lX]", hr);
      return hr;
    }
  }
  const size_t messages = listed.size();
  hr = GetFolderContents(true, folder.Get(), listed, listed_times);
  if (FAILED(hr)) {
    ZK_LOG(L"CMapiForWDS::BrowseFolder() - GetFolderContents for sub-folders failed with [0x%08lX]", hr);
    return hr;
  }
  FILETIME vault_time = {};
  GetLastModifiedFileTime(tokens.size() > kVaultToken ? tokens[kVaultToken] : std::wstring(), &vault_time);
  listed_times.insert(listed_times.end(), listed.size() - messages, vault_time);
  names.swap(listed);
  times.swap(listed_times);
  return GetFolderPath(folder.Get(), path);
}

// The folder of a hexadecimal token, or the top of the message tree.
HRESULT CMapiForWDS::OpenContainer(const std::wstring& token, bool top, LPMAPIFOLDER* folder) {
  if (!store_) return E_FAIL;
  ULONG type = MAPI_FOLDER;  // a provider may leave it
  IUnknown* object = nullptr;
  if (top) {
    SizedSPropTagArray(1, tags) = {1, {PR_IPM_SUBTREE_ENTRYID}};
    ULONG count = 0;
    TidyPropValues values;
    HRESULT hr = store_->GetProps(reinterpret_cast<LPSPropTagArray>(&tags), 0, &count, &values);
    const SPropValue* id = FindProp(values, count, 0, PR_IPM_SUBTREE_ENTRYID);
    if (hr != S_OK || !id || !id->Value.bin.cb) {
      ZK_LOG(L"CMapiForWDS::BrowseFolder() - GetProps for IPM root folder failed with [0x%08lX]", hr);
      return E_FAIL;
    }
    hr = store_->OpenEntry(id->Value.bin.cb, EntryId(id->Value.bin), nullptr, MAPI_BEST_ACCESS, &type, &object);
    if (FAILED(hr)) {
      ZK_LOG(L"CMapiForWDS::BrowseFolder() - OpenEntry of IPM root folder failed\twith [0x%08lX]", hr);
      return E_FAIL;
    }
  } else {
    const SBinary id = CStringToEntryID(token);
    if (!id.lpb) {
      ZK_LOG(L"CMapiForWDS::BrowseFolder() - CStringToEntryID for folder\tfailed");
      return E_FAIL;
    }
    const HRESULT hr = store_->OpenEntry(id.cb, EntryId(id), nullptr, MAPI_BEST_ACCESS, &type, &object);
    mapi::MAPIFreeBuffer(id.lpb);
    if (FAILED(hr)) {
      ZK_LOG(L"CMapiForWDS::BrowseFolder() - OpenEntry for folder failed\twith [0x%08lX]", hr);
      return hr;
    }
  }
  if (!object || type != MAPI_FOLDER) {
    // A folder URL may be forged with a message's identifier; its methods are not a folder's.
    if (object) object->Release();
    if (top) {
      ZK_LOG(L"CMapiForWDS::BrowseFolder() - OpenEntry of IPM root folder failed\twith [0x%08lX]",
             MAPI_E_INVALID_OBJECT);
      return E_FAIL;
    }
    ZK_LOG(L"CMapiForWDS::BrowseFolder() - OpenEntry for folder failed\twith [0x%08lX]", MAPI_E_INVALID_OBJECT);
    return MAPI_E_INVALID_OBJECT;
  }
  *folder = static_cast<LPMAPIFOLDER>(object);
  return S_OK;
}

HRESULT CMapiForWDS::GetFolderContents(bool sub_folders, LPMAPIFOLDER folder, std::vector<std::wstring>& names,
                                       std::vector<FILETIME>& times) {
  if (!folder) {
    ZK_LOG(L"CMapiForWDS::GetFolderContents() - Input folder is NULL");
    return E_FAIL;
  }
  ComPtr<IMAPITable> table;
  HRESULT hr;
  if (sub_folders) {
    hr = folder->GetHierarchyTable(0, &table);
    if (FAILED(hr)) {
      ZK_LOG(L"CMapiForWDS::GetFolderContents() - GetHierarchyTable failed with [0x%08lX]", hr);
      return hr;
    }
    SizedSPropTagArray(3, columns) = {3, {PR_ENTRYID, PR_DISPLAY_NAME_W, PR_OBJECT_TYPE}};
    hr = table ? table->SetColumns(reinterpret_cast<LPSPropTagArray>(&columns), 0) : E_FAIL;
    if (FAILED(hr)) {
      ZK_LOG(L"CMapiForWDS::GetFolderContents() - SetColumns for sub-folders failed with [0x%08lX]", hr);
      return hr;
    }
  } else {
    hr = folder->GetContentsTable(0, &table);
    if (FAILED(hr)) {
      ZK_LOG(L"CMapiForWDS::GetFolderContents() - GetContentsTable failed with [0x%08lX]", hr);
      return hr;
    }
    SizedSPropTagArray(4, columns) = {4, {PR_ENTRYID, PR_SUBJECT_W, PR_MESSAGE_SIZE, PR_LAST_MODIFICATION_TIME}};
    hr = table ? table->SetColumns(reinterpret_cast<LPSPropTagArray>(&columns), 0) : E_FAIL;
    if (FAILED(hr)) {
      ZK_LOG(L"CMapiForWDS::GetFolderContents() - SetColumns for messages failed with [0x%08lX]", hr);
      return hr;
    }
  }
  ULONG count = 0;
  hr = table->GetRowCount(0, &count);
  if (FAILED(hr)) {
    ZK_LOG(L"CMapiForWDS::GetFolderContents() - GetRowCount failed with [0x%08lX]", hr);
    return hr;
  }
  ZK_LOG(L"CMapiForWDS::GetFolderContents() - RowCount is [%ld]", count);
  if (!count) return S_OK;
  TidyTableRows rows;
  hr = rows.Query(table.Get(), count);
  if (FAILED(hr)) {
    ZK_LOG(L"CMapiForWDS::GetFolderContents() - QueryRows failed with [0x%08lX]", hr);
    return hr;
  }
  names.reserve(names.size() + rows.rows());
  times.reserve(times.size() + rows.rows());
  for (ULONG i = 0; i < rows.rows(); ++i) {
    const SPropValue* id = rows.cell(i, 0, PR_ENTRYID);
    if (!id) continue;
    if (sub_folders) {
      const SPropValue* type = rows.cell(i, 2, PR_OBJECT_TYPE);
      if (!type || type->Value.l != MAPI_FOLDER) continue;
      if (const SPropValue* name = rows.cell(i, 1, PR_DISPLAY_NAME_W))
        ZK_LOG(L"CMapiForWDS::GetFolderContents() - Sub-folder name [%s] ", name->Value.lpszW);
      names.push_back(BinaryToText(id->Value.bin));
      continue;
    }
    const SPropValue* size = rows.cell(i, 2, PR_MESSAGE_SIZE);
    std::wstring name = BinaryToText(id->Value.bin);
    name.append(L"[[").append(std::to_wstring(size ? size->Value.l : 0L)).append(L"]]").append(url::kMessageSuffix);
    if (const SPropValue* subject = rows.cell(i, 1, PR_SUBJECT_W))
      ZK_LOG(L"CMapiForWDS::GetFolderContents() - Message subject [%s] ", subject->Value.lpszW);
    FILETIME time;
    if (const SPropValue* modified = rows.cell(i, 3, PR_LAST_MODIFICATION_TIME)) {
      time = modified->Value.ft;
    } else {
      ZK_LOG(L"CMapiForWDS::GetFolderContents() - Last modification time property of message not set");
      GetSystemTimeAsFileTime(&time);
    }
    times.push_back(time);
    names.push_back(std::move(name));
  }
  return S_OK;
}

HRESULT CMapiForWDS::GetFolderPath(LPMAPIFOLDER folder, std::wstring& path) {
  if (!folder) return E_INVALIDARG;
  path.clear();
  TidyPropValues top;
  // Without a known top the path stays empty, which is no failure.
  const bool has_top = SUCCEEDED(mapi::HrGetOneProp(store_.Get(), PR_IPM_SUBTREE_ENTRYID, &top)) && top &&
                       Carries(*top.get(), PR_IPM_SUBTREE_ENTRYID);
  HRESULT hr = S_OK;
  ComPtr<IMAPIFolder> current(folder);
  for (int depth = 0; has_top && depth < kMaxFolderDepth; ++depth) {
    SizedSPropTagArray(3, tags) = {3, {PR_ENTRYID, PR_DISPLAY_NAME_W, PR_PARENT_ENTRYID}};
    ULONG count = 0;
    TidyPropValues values;
    hr = current->GetProps(reinterpret_cast<LPSPropTagArray>(&tags), 0, &count, &values);
    if (FAILED(hr)) break;
    const SPropValue* id = FindProp(values, count, 0, PR_ENTRYID);
    if (id) {
      ULONG same = FALSE;
      hr = store_->CompareEntryIDs(id->Value.bin.cb, EntryId(id->Value.bin), top->Value.bin.cb, EntryId(top->Value.bin),
                                   0, &same);
      if (FAILED(hr) || same) break;
    }
    if (const SPropValue* name = FindProp(values, count, 1, PR_DISPLAY_NAME_W))
      path = path.empty() ? std::wstring(name->Value.lpszW) : std::wstring(name->Value.lpszW) + L"/" + path;
    const SPropValue* parent = FindProp(values, count, 2, PR_PARENT_ENTRYID);
    if (!parent) break;
    // The store's root folder is its own parent: a folder outside the message tree ends there.
    if (id && id->Value.bin.cb == parent->Value.bin.cb &&
        !memcmp(id->Value.bin.lpb, parent->Value.bin.lpb, parent->Value.bin.cb))
      break;
    ULONG type = MAPI_FOLDER;
    ComPtr<IUnknown> object;
    hr = store_->OpenEntry(parent->Value.bin.cb, EntryId(parent->Value.bin), nullptr, MAPI_BEST_ACCESS, &type, &object);
    if (FAILED(hr)) break;
    if (!object || type != MAPI_FOLDER) {
      ZK_LOG(L"CMapiForWDS::GetFolderPath - OpenEntry returned non-folder object");
      hr = E_FAIL;
      break;
    }
    current = static_cast<IMAPIFolder*>(object.Get());
  }
  // GetProps reports missing properties as a warning, which is no failure of the walk.
  if (SUCCEEDED(hr)) hr = S_OK;
  ZK_LOG(L"CMapiForWDS::GetFolderPath() - returned [0x%08lX]. Folder path is [%s]", hr, path.c_str());
  return hr;
}
