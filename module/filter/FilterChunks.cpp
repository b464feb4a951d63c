// Set-up, redirection of an attachment to the filter of its own type, and the walk through an item's steps.
#include <shlwapi.h>

#include "module/core/Boundary.h"
#include "module/core/Text.h"
#include "module/core/resource.h"
#include "module/filter/ItemSteps.h"
#include "module/registration/HoardexCommon.h"
#include "platform/mapi_extra.h"

#include <filterr.h>

namespace {

constexpr wchar_t kLogSource[] = L".\\HoardexFilter";

}  // namespace

CHoardexFilter::CHoardexFilter() : locale_(GetSystemDefaultLCID()) {}

HRESULT CHoardexFilter::SetUp(const std::wstring& url, std::shared_ptr<CMapiForWDS> mapi,
                              const std::wstring& attachment_file, const std::wstring& title, const FILETIME& date,
                              const std::wstring& author, IProtocolHandlerSite* site) {
  url_ = url;
  kind_ = CHoardexURL(url_).kind();
  mapi_ = std::move(mapi);
  attachment_file_ = attachment_file;
  attachment_title_ = title;
  attachment_author_ = author;
  file_time_ = date;
  site_ = site;
  root_name_ = text::Resource(IDS_TESSARY);
  return root_name_.empty() ? E_FAIL : S_OK;
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

const ItemSequence* ItemSequence::Of(CHoardexURL::Kind kind) {
  switch (kind) {
    case CHoardexURL::kRoot:
      return &ItemSteps::kOfRoot;
    case CHoardexURL::kVaultFile:
    case CHoardexURL::kFolder:
      return &ItemSteps::kOfContainer;
    case CHoardexURL::kMessage:
      return &ItemSteps::kOfMessage;
    case CHoardexURL::kAttachment:
      return &ItemSteps::kOfAttachment;
    default:
      return nullptr;
  }
}

bool ItemSequence::Row::Applies(const CHoardexFilter& filter, const SPropValue** element) const {
  *element = nullptr;
  if ((flags & kIfAppointment) && !filter.props(PropertySource::kAppointment)) return false;
  if (source == PropertySource::kNone) return true;
  const SPropValue* found = filter.props(source).at(index);
  if (!found || match != (MatchesTag() ? found->ulPropTag : PROP_TYPE(found->ulPropTag))) return false;
  if ((flags & kIfNotEmpty) && !(found->Value.lpszW && *found->Value.lpszW)) return false;
  *element = found;
  return true;
}

HRESULT CHoardexFilter::NextChunk(STAT_CHUNK* stat) {
  using Outcome = ItemSequence::Outcome;
  const ItemSequence* sequence = ItemSequence::Of(kind_);
  if (!sequence) return End();
  Outcome outcome = sequence->enter(*this);
  int& position = this->*sequence->counter;
  while (outcome == Outcome::kGive || outcome == Outcome::kSkip) {
    if (sequence->walks) ++position;
    if (sequence->traces) ZK_LOG_DETAIL(L"CHoardexFilter::GetChunk() - GetChunk Msg Props Counted [%d]", position);
    const ItemSequence::Row* row = sequence->At(position);
    if (!row) return sequence->leave(*this, stat);
    const SPropValue* element;
    if (!row->Applies(*this, &element)) continue;
    outcome = row->rule ? row->rule->prepare(*this) : Outcome::kGive;
    if (outcome != Outcome::kGive) continue;
    // Elsewhere the chunk keeps the id that the caller's structure holds.
    const bool new_id = !(row->flags & kWorkstationId) || IsVistaOrLater();
    Fill(stat, row->property->key, row->state(), new_id);
    return S_OK;
  }
  return outcome == Outcome::kUntouched ? S_OK : End();
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

void CHoardexFilter::ReleaseProperties() {
  for (PropertySet& set : properties_) set.Release();
}

HRESULT CHoardexFilter::End() {
  child_urls_.clear();
  child_times_.clear();
  // A host may keep the filter long after it has read it.
  message_.Reset();
  body_stream_.Reset();
  ReleaseProperties();
  return FILTER_E_END_OF_CHUNKS;
}
