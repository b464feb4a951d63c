// An attachment's author, name, extension, kind and type.
#include <shldisp.h>
#include <shlwapi.h>

#include <comdef.h>

#include "module/core/ComScope.h"
#include "module/core/RegistryKey.h"
#include "module/core/SCLog.h"
#include "module/core/Text.h"
#include "module/filter/HoardexFilter.h"
#include "module/filter/ItemTypes.h"
#include "module/registration/HoardexCommon.h"

using Microsoft::WRL::ComPtr;

namespace {

constexpr wchar_t kLogSource[] = L".\\HoardexFilter";
constexpr wchar_t kKindMapKey[] = L"SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\Explorer\\KindMap";
constexpr size_t kLongestValue = 260;  // characters of a kind or of a type
constexpr wchar_t kAuthorProperty[] = L"{F29F85E0-4FF9-1068-AB91-08002B27B3D9} 4";

constexpr CLSID kShellClass = {0x13709620, 0xC279, 0x11CE, {0xA4, 0x9E, 0x44, 0x45, 0x53, 0x54, 0x00, 0x00}};
constexpr IID kShellDispatch = {0xD8F015C0, 0xC278, 0x11CE, {0xA4, 0x9E, 0x44, 0x45, 0x53, 0x54, 0x00, 0x00}};
constexpr IID kFolderItem2 = {0xEDC817AA, 0x92B8, 0x11D1, {0xB0, 0x75, 0x00, 0xC0, 0x4F, 0xC3, 0x3A, 0xA5}};

// The strings of a one-dimensional array of BSTR, joined by "; ".
std::wstring Join(SAFEARRAY* array) {
  std::wstring joined;
  LONG lower = 0, upper = -1;
  if (!array || SafeArrayGetDim(array) != 1 || FAILED(SafeArrayGetLBound(array, 1, &lower)) ||
      FAILED(SafeArrayGetUBound(array, 1, &upper)))
    return joined;
  for (LONG i = lower; i <= upper; ++i) {
    if (i != lower) joined += L"; ";
    BSTR raw = nullptr;
    if (FAILED(SafeArrayGetElement(array, &i, &raw))) continue;
    const _bstr_t text(raw, false);
    if (raw) joined += raw;
  }
  return joined;
}

}  // namespace

HRESULT CHoardexFilter::GetAttachmentAuthor(std::wstring& author) {
  author.clear();
  const ComScope com(COINIT_APARTMENTTHREADED);  // what CoInitialize enters
  const std::wstring name = attachment_file_.substr(attachment_file_.rfind(L'\\') + 1);
  try {
    return QueryAttachmentAuthor(author);
  } catch (const _com_error& error) {
    ZK_LOG(L"CHoardexFilter::GetAttachmentAuthor() - COM Exception, error code [0x%08X], FileName - %s", error.Error(),
           name.c_str());
    return error.Error();
  } catch (...) {
    ZK_LOG(L"CHoardexFilter::GetAttachmentAuthor() - Exception, FileName - %s", name.c_str());
    return E_FAIL;
  }
}

HRESULT CHoardexFilter::QueryAttachmentAuthor(std::wstring& author) {
  ComPtr<IShellDispatch> shell;
  HRESULT hr = CoCreateInstance(kShellClass, nullptr, CLSCTX_INPROC_SERVER, kShellDispatch,
                                reinterpret_cast<void**>(shell.ReleaseAndGetAddressOf()));
  if (FAILED(hr)) {
    ZK_LOG(L"CHoardexFilter::GetAttachmentAuthor() - CoCreateInstance for CLSID_Shell failed with error code [0x%08lX]",
           hr);
    return hr;
  }
  const size_t slash = attachment_file_.rfind(L'\\');
  const std::wstring folder_path = slash == std::wstring::npos ? std::wstring() : attachment_file_.substr(0, slash);
  const std::wstring name = attachment_file_.substr(slash + 1);
  ComPtr<Folder> folder;
  hr = shell->NameSpace(_variant_t(folder_path.c_str()), &folder);
  if (FAILED(hr) || !folder) {
    ZK_LOG(
        L"CHoardexFilter::GetAttachmentAuthor() - IShellDispatch::NameSpace() failed with error code [0x%08lX], "
        L"FileName - %s",
        hr, name.c_str());
    return FAILED(hr) ? hr : E_FAIL;
  }
  ComPtr<FolderItem> item;
  hr = folder->ParseName(_bstr_t(name.c_str()), &item);
  if (FAILED(hr) || !item) {
    ZK_LOG(
        L"CHoardexFilter::GetAttachmentAuthor() - Folder::ParseName() failed with error code [0x%08lX], FileName - "
        L"%s",
        hr, name.c_str());
    return FAILED(hr) ? hr : E_FAIL;
  }
  ComPtr<FolderItem2> item2;
  hr = item->QueryInterface(kFolderItem2, reinterpret_cast<void**>(item2.ReleaseAndGetAddressOf()));
  if (FAILED(hr)) {
    ZK_LOG(
        L"CHoardexFilter::GetAttachmentAuthor() - FolderItem::QueryInterface() for FolderItem2 failed with error "
        L"code [0x%08lX], FileName - %s",
        hr, name.c_str());
    return hr;
  }
  _variant_t value;
  hr = item2->ExtendedProperty(_bstr_t(kAuthorProperty), &value);
  if (FAILED(hr)) {
    ZK_LOG(
        L"CHoardexFilter::GetAttachmentAuthor() - FolderItem2::ExtendedProperty() failed with error code [0x%08lX], "
        L"FileName - %s",
        hr, name.c_str());
    return hr;
  }
  if (value.vt == VT_BSTR) {
    if (value.bstrVal) author = value.bstrVal;
  } else if (value.vt == (VT_ARRAY | VT_BSTR)) {
    author = Join(value.parray);
  } else if (value.vt != VT_EMPTY) {
    ZK_LOG(L"CHoardexFilter::GetAttachmentAuthor - Unhandled case for vtAuthor.vt = 0x%X ,FileName - %s", value.vt,
           name.c_str());
  }
  return S_OK;
}

HRESULT CHoardexFilter::GetAttachmentFileNameFromURL(std::wstring& name) {
  name.clear();
  if (kind_ != CHoardexURL::kAttachment) return S_OK;
  std::vector<std::wstring> tokens;
  if (ExtractURLTokens(url_, tokens) < 1) {
    ZK_LOG(L"CHoardexFilter::GetAttachmentFileNameFromURL() - ExtractURLTokens failed");
    return S_OK;
  }
  name = tokens.back();
  return S_OK;
}

bool CHoardexFilter::GetAttachmentExtension(std::wstring& extension) const {
  extension.clear();
  if (kind_ != CHoardexURL::kAttachment) return false;
  // Of the whole URL: where the name has no dot, this is text that holds a "/".
  extension = url_.substr(url_.rfind(L'.') + 1);
  return true;
}

void CHoardexFilter::GetItemTypeText(std::wstring& text) const {
  if (kind_ == CHoardexURL::kMessage) {
    text = text::Resource(TypeOf(item_kind()).text);
    return;
  }
  std::wstring extension;
  if (!GetAttachmentExtension(extension)) return text.clear();
  wchar_t name[MAX_PATH] = {};
  DWORD size = MAX_PATH;
  if (!extension.empty() && extension.find(L'/') == std::wstring::npos &&
      SUCCEEDED(
          AssocQueryStringW(ASSOCF_NONE, ASSOCSTR_FRIENDLYDOCNAME, (L"." + extension).c_str(), nullptr, name, &size)) &&
      *name) {
    text = name;
    return;
  }
  text = extension;
  CharUpperBuffW(text.data(), static_cast<DWORD>(text.size()));
  text += L" file";
}

// The Windows kind that the machine's map gives the extension, else that of mail.
std::wstring CHoardexFilter::AttachmentKind() const {
  std::wstring kind = L"email;communication", extension;
  if (!IsVistaOrLater() && !IsServer2008OrLater()) return kind;
  GetAttachmentExtension(extension);
  if (extension.empty()) return kind;
  extension = text::Lower(L"." + extension);
  RegistryKey map;
  const LONG opened = map.Open(HKEY_LOCAL_MACHINE, kKindMapKey);
  if (opened != ERROR_SUCCESS) {
    ZK_LOG(
        L"CHoardexFilter::GetValue() - Failed [PROP_ATTACH_PERCIEVED_TYPE] to locate %s under HKLM registry key, "
        L"errorCode = %ld",
        kKindMapKey, opened);
    return kind;
  }
  wchar_t value[kLongestValue + 1];
  if (map.ReadString(extension.c_str(), value) == ERROR_SUCCESS) return value;
  ZK_LOG(L"CHoardexFilter::GetValue() - [PROP_ATTACH_PERCIEVED_TYPE] Failed to locate string value %s under - HKLM/%s",
         extension.c_str(), kKindMapKey);
  return kind;
}

// The class that the extension is registered for, else the extension itself.
std::wstring CHoardexFilter::AttachmentItemType() const {
  std::wstring type;
  GetAttachmentExtension(type);
  if (type.empty()) return type;
  const std::wstring extension = text::Lower(L"." + type);
  RegistryKey key;
  const LONG opened = key.Open(HKEY_CLASSES_ROOT, extension.c_str());
  if (opened != ERROR_SUCCESS) {
    ZK_LOG(
        L"CHoardexFilter::GetValue() - [PROP_ATTACH_ITEMTYPE] Failed to locate %s under HKCR registry key, errorCode "
        L"= %ld",
        extension.c_str(), opened);
    return type;
  }
  wchar_t value[kLongestValue + 1];
  if (key.ReadString(nullptr, value) == ERROR_SUCCESS) return value;
  ZK_LOG(L"CHoardexFilter::GetValue() - [PROP_ATTACH_ITEMTYPE] Failed to locate Item Type for extension %s",
         extension.c_str());
  return type;
}
