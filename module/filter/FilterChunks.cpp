// Set-up, redirection of an attachment to the filter of its own type, and the chunks of roots, containers and
// attachments.
#include <shlwapi.h>

#include "module/core/Boundary.h"
#include "module/core/Text.h"
#include "module/core/resource.h"
#include "module/filter/HoardexFilter.h"
#include "module/filter/PropertyKeys.h"
#include "module/registration/HoardexCommon.h"
#include "platform/mapi_extra.h"

#include <filterr.h>

namespace {

constexpr wchar_t kLogSource[] = L".\\HoardexFilter";
constexpr size_t kVaultToken = 3;

}  // namespace

CHoardexFilter::CHoardexFilter() : locale_(GetSystemDefaultLCID()) {}

HRESULT CHoardexFilter::SetUp(const std::wstring& url, CMapiForWDS* mapi, const std::wstring& attachment_file,
                              const std::wstring& title, const FILETIME& date, const std::wstring& author,
                              IProtocolHandlerSite* site) {
  url_ = url;
  kind_ = CHoardexURL(url_).kind();
  mapi_ = mapi;
  attachment_file_ = attachment_file;
  attachment_title_ = title;
  attachment_author_ = author;
  file_time_ = date;
  site_ = site;
  root_name_ = text::Resource(IDS_TESSARY);
  return S_OK;
}

STDMETHODIMP CHoardexFilter::GetClassID(CLSID* clsid) {
  if (!clsid) return E_POINTER;
  *clsid = module::kHoardexFilterClass;
  return S_OK;
}

STDMETHODIMP_(SCODE)
CHoardexFilter::Init(ULONG flags, ULONG count, const FULLPROPSPEC* attributes, ULONG* out_flags) {
  ZK_GUARD(L"CHoardexFilter::Init()", [&]() -> HRESULT {
    if (kind_ != CHoardexURL::kAttachment) return S_OK;
    const HRESULT hr = Redirect(flags, count, attributes, out_flags);
    if (FAILED(hr) && mapi_) ZK_LOG(L"CHoardexFilter::Init() - In StdInitExit failed with [0x%08lX]", hr);
    return hr;
  });
}

HRESULT CHoardexFilter::Redirect(ULONG flags, ULONG count, const FULLPROPSPEC* attributes, ULONG* out_flags) {
  const size_t dot = url_.rfind(L'.'), slash = url_.rfind(L'/');
  if (dot == std::wstring::npos || (slash != std::wstring::npos && dot < slash)) return E_FAIL;
  const std::wstring extension = url_.substr(dot + 1);
  HRESULT hr = site_ ? site_->GetFilter(nullptr, nullptr, extension.c_str(), &inner_filter_) : E_FAIL;
  if (FAILED(hr) || !inner_filter_) {
    // A type without a filter is still indexed by its properties alone.
    inner_filter_.Reset();
    ZK_LOG(L"CHoardexFilter::Init() - Redirection case GetFilter failed with [0x%08lX]", hr);
    return S_OK;
  }
  hr = inner_filter_.As(&inner_persist_);
  if (FAILED(hr)) {
    ZK_LOG(L"CHoardexFilter::Init() - Redirection case QueryInterface failed with [0x%08lX]", hr);
    return hr;
  }
  Microsoft::WRL::ComPtr<IStream> stream;
  hr = SHCreateStreamOnFileW(attachment_file_.c_str(), STGM_READ, &stream);
  if (hr == E_ACCESSDENIED) {
    ZK_LOG(L"CHoardexFilter::Init() - Mapi no access failed with [0x%08lX]", hr);
    return hr;
  }
  if (hr == MAPI_E_NOT_FOUND) {
    ZK_LOG(L"CHoardexFilter::Init() - Mapi not found failed with [0x%08lX]", hr);
    return hr;
  }
  // Any other failure is left to the inner filter, which is given whatever stream there is.
  hr = inner_persist_->Load(stream.Get());
  if (FAILED(hr)) {
    ZK_LOG(L"CHoardexFilter::Init() - Redirection case Load failed with [0x%08lX]", hr);
    return hr;
  }
  hr = inner_filter_->Init(flags, count, attributes, out_flags);
  if (FAILED(hr)) {
    ZK_LOG(L"CHoardexFilter::Init() - Redirection case Init failed with [0x%08lX]", hr);
    return hr;
  }
  attach_step_ = kAttachStart;
  return hr;
}

STDMETHODIMP_(SCODE) CHoardexFilter::GetChunk(STAT_CHUNK* stat) {
  if (!stat) return E_POINTER;
  ZK_GUARD(L"CHoardexFilter::GetChunk()", [&]() -> HRESULT { return NextChunk(stat); });
}

HRESULT CHoardexFilter::NextChunk(STAT_CHUNK* stat) {
  switch (kind_) {
    case CHoardexURL::kRoot: return NextRootChunk(stat);
    case CHoardexURL::kVaultFile:
    case CHoardexURL::kFolder: return mapi_ ? NextContainerChunk(stat) : End();
    case CHoardexURL::kMessage: return mapi_ ? NextMessageChunk(stat) : End();
    case CHoardexURL::kAttachment: return NextAttachmentChunk(stat);
    default: return End();
  }
}

void CHoardexFilter::Fill(STAT_CHUNK* stat, const PROPERTYKEY& key, CHUNKSTATE state, bool new_id) {
  if (new_id) stat->idChunk = ++chunk_id_;
  stat->breakType = CHUNK_NO_BREAK;
  stat->flags = state;
  stat->locale = locale_;
  stat->attribute.guidPropSet = key.fmtid;
  stat->attribute.psProperty.ulKind = PRSPEC_PROPID;
  stat->attribute.psProperty.propid = key.pid;
  stat->idChunkSource = 0;
  stat->cwcStartSource = 0;
  stat->cwcLenSource = 0;
}

HRESULT CHoardexFilter::End() {
  child_urls_.clear();
  child_times_.clear();
  // Nothing of MAPI outlives the sequence: the host may keep the filter until the session is gone.
  message_.Reset();
  body_stream_.Reset();
  for (PropertySet* set :
       {&message_props_, &calendar_props_, &task_props_, &contact_props_, &contact_named_props_, &note_props_})
    set->Release();
  return FILTER_E_END_OF_CHUNKS;
}

HRESULT CHoardexFilter::NextRootChunk(STAT_CHUNK* stat) {
  ZK_LOG(L"CHoardexFilter::GetChunk() - Default URL, HXDir is [%s]", url_.c_str());
  if (root_step_ == 1 || root_step_ == 2) {
    Fill(stat, root_step_ == 1 ? key::ItemName : key::ItemPathDisplay);
    return S_OK;
  }
  if (root_step_ != 3) return End();
  if (!links_built_) {
    EnumAllHXFiles(vault_files_);
    links_built_ = true;
  }
  child_urls_.clear();
  if (next_vault_file_ >= vault_files_.size()) return End();
  const std::wstring file = vault_files_[next_vault_file_];
  child_urls_.push_back(url::Child(url_, file) + L"/");
  link_index_ = 0;
  FILETIME time = {};
  if (!CMapiForWDS::GetLastModifiedFileTime(file, &time)) time = {};
  child_times_.assign(1, time);
  ++next_vault_file_;
  Fill(stat, key::UrlToIndexWithModificationTime);
  return S_OK;
}

// Lists the container's children as full URLs and makes its display path. False when it cannot be browsed.
bool CHoardexFilter::ListChildren() {
  child_times_.clear();
  std::wstring folder_path;
  std::vector<std::wstring> names;
  if (FAILED(mapi_->BrowseFolder(url_, folder_path, names, child_times_))) return false;
  std::vector<std::wstring> tokens;
  if (ExtractURLTokens(url_, tokens) > static_cast<int>(kVaultToken)) {
    const std::wstring& token = tokens[kVaultToken];
    const std::wstring vault = token.substr(0, token.size() - (std::size(url::kVaultSuffix) - 1));
    display_path_ = L"/" + root_name_ + L"/" + vault;
    if (!folder_path.empty()) display_path_ += L"/" + folder_path;
    ZK_LOG(L"%s Path:%s tok:%s", L"CHoardexFilter::GetChunk()", display_path_.c_str(), token.c_str());
  }
  child_urls_.clear();
  child_urls_.reserve(names.size());
  for (const std::wstring& name : names) {
    std::wstring child = url::Child(url_, name);
    if (!CHoardexURL(child).IsMessage()) child.push_back(L'/');
    child_urls_.push_back(std::move(child));
  }
  return true;
}

HRESULT CHoardexFilter::NextContainerChunk(STAT_CHUNK* stat) {
  if (child_urls_.empty() && !ListChildren()) return End();
  if (root_step_ == 1 || root_step_ == 2) {
    Fill(stat, root_step_ == 1 ? key::ItemName : key::ItemPathDisplay);
    return S_OK;
  }
  if (root_step_ != 3) return End();
  if (++link_index_ < static_cast<int>(child_urls_.size())) {
    Fill(stat, key::UrlToIndexWithModificationTime);
    return S_OK;
  }
  ++root_step_;
  return End();
}

HRESULT CHoardexFilter::NextAttachmentChunk(STAT_CHUNK* stat) {
  static constexpr const PROPERTYKEY* kSteps[] = {
      &key::ItemPathDisplay, &key::ItemFolderPathDisplay, &key::ItemFolderPathDisplayNarrow, &key::Kind,
      &key::FileExtension,   &key::FromName,              &key::FileName,                    &key::ItemType,
      &key::ItemTypeText,    &key::IsAttachment,          &key::ItemName,                    &key::Author,
      &key::ItemDate,        &key::ItemFolderPathDisplay,
  };
  static constexpr int kExtensionStep = 4;

  const auto policy = CurrentGroupPolicy();
  if (policy->AttachmentsPrevented()) {
    ZK_LOG(L"CHoardexFilter::GetChunk() - URL_IS_ATTACHMENT - WDS Group policy is set to ignore all email attachments");
    return S_OK;
  }
  const std::wstring extension = text::Lower(url_.substr(url_.rfind(L'.') + 1));
  if (policy->Excludes(extension)) {
    ZK_LOG(L"CHoardexFilter::GetChunk() - URL_IS_ATTACHMENT - WDS Group policy is set to ignore specific attachment of "
           L"type - %s",
           extension.c_str());
    return S_OK;
  }
  ++attach_step_;
  const int step = attach_step_ + 16;
  if (step < static_cast<int>(std::size(kSteps))) {
    // Off a workstation of Vista or later, the extension's chunk keeps the id that the caller's structure holds.
    Fill(stat, *kSteps[step], CHUNK_VALUE, step != kExtensionStep || IsVistaOrLater());
    return S_OK;
  }
  return inner_filter_ ? inner_filter_->GetChunk(stat) : FILTER_E_END_OF_CHUNKS;
}
