// The IFilter over one vault item: a sequence of value chunks, the body text, and links to child items.
//
// One object serves one URL and is used by one thread at a time. It shares the vault session and counts the site.
#pragma once

#include <windows.h>

#include <wrl/client.h>

#include <memory>
#include <string>
#include <vector>

#include "module/core/ComObject.h"
#include "module/core/HoardexURL.h"
#include "module/filter/Variants.h"
#include "module/mapi/MapiForWDS.h"
#include "module/shell/GroupPolicy.h"
#include "platform/searchapi.h"

// What GetProps returned: entry i answers tag i of the request.
struct PropertySet {
  TidyPropValues values;
  ULONG count = 0;

  explicit operator bool() const { return static_cast<bool>(values); }
  const SPropValue* at(ULONG i) const { return values && i < count ? &values.get()[i] : nullptr; }
  void Release() {
    values.Release();
    count = 0;
  }
};

// Where a message's properties come from: one set for what every message has, and for each item type its own.
enum class PropertySource { kMessage, kAppointment, kTask, kContact, kContactNamed, kNote, kNone };
inline constexpr size_t kPropertySources = 6;

// What an item is beyond its URL's kind, in the order in which it is tested.
enum class ItemKind { kAppointment, kTask, kContact, kNote, kEmail };

class CHoardexFilter final : public ComObject<IFilter, IPersistStream> {
 public:
  CHoardexFilter();

  // From the URL accessor, before Init. `title`, `date` and `author` are those of an attachment. E_FAIL where the
  // module has no name for the root.
  HRESULT SetUp(const std::wstring& url, std::shared_ptr<CMapiForWDS> mapi, const std::wstring& attachment_file,
                const std::wstring& title, const FILETIME& date, const std::wstring& author,
                IProtocolHandlerSite* site);

  // IFilter
  STDMETHODIMP_(SCODE) Init(ULONG flags, ULONG count, const FULLPROPSPEC* attributes, ULONG* out_flags) override;
  STDMETHODIMP_(SCODE) GetChunk(STAT_CHUNK* stat) override;
  STDMETHODIMP_(SCODE) GetText(ULONG* count, WCHAR* buffer) override;
  STDMETHODIMP_(SCODE) GetValue(PROPVARIANT** value) override;
  STDMETHODIMP_(SCODE) BindRegion(FILTERREGION, REFIID, void** region) override { return NotImplemented(region); }

  // IPersistStream: present because Windows Search asks for it; the item comes from SetUp.
  STDMETHODIMP GetClassID(CLSID* clsid) override;
  STDMETHODIMP IsDirty() override { return S_FALSE; }
  STDMETHODIMP Load(IStream*) override { return E_NOTIMPL; }
  STDMETHODIMP Save(IStream*, BOOL) override { return E_NOTIMPL; }
  STDMETHODIMP GetSizeMax(ULARGE_INTEGER* size) override { return NotImplemented(size); }

 private:
  friend struct ItemSequence;
  friend struct ItemSteps;

  static constexpr int kMessageStart = -51;
  static constexpr int kAttachStart = -17;

  HRESULT Redirect(ULONG flags, ULONG count, const FULLPROPSPEC* attributes, ULONG* out_flags);

  // Chunks (FilterChunks.cpp, and the steps of each item)
  HRESULT NextChunk(STAT_CHUNK* stat);
  bool ListChildren();
  bool NextVaultFile();
  bool OpenMessage();
  bool ReadBody();
  bool ReadAttachmentList();
  void AddAttachmentRow(const TidyTableRows& rows, ULONG i, const GroupPolicy& policy);
  bool IsFilterAvailable(const wchar_t* extension) const;  // without its dot
  HRESULT End();
  void ReleaseProperties();
  void Fill(STAT_CHUNK* stat, const PROPERTYKEY& key, CHUNKSTATE state, bool new_id);

  // Values (FilterValues.cpp)
  HRESULT MakeValue(variant::Owner& owner, PROPVARIANT** forwarded);
  HRESULT MakeLink(PROPVARIANT& value);
  ItemKind item_kind() const;

  // Text (FilterText.cpp)
  HRESULT NextText(ULONG* count, WCHAR* buffer);
  void KeepSummary(const WCHAR* text, ULONG count);

  // Readers of a message's properties (PropertyReaders.cpp)
  PropertySet& props(PropertySource source) { return properties_[static_cast<size_t>(source)]; }
  const PropertySet& props(PropertySource source) const { return properties_[static_cast<size_t>(source)]; }
  HRESULT ReadTags(PropertySource source);
  HRESULT ReadMessageProperties();
  HRESULT ReadCalendarProperties();
  HRESULT ReadTaskProperties();
  HRESULT ReadContactProperties();
  HRESULT ReadStickyNoteProperties();
  HRESULT GetRecipientInfo();

  // Attachment metadata (AttachmentMetadata.cpp)
  HRESULT GetAttachmentAuthor(std::wstring& author);
  HRESULT QueryAttachmentAuthor(std::wstring& author);
  HRESULT GetAttachmentFileNameFromURL(std::wstring& name);
  bool GetAttachmentExtension(std::wstring& extension) const;
  void GetItemTypeText(std::wstring& text) const;
  std::wstring AttachmentKind() const;
  std::wstring AttachmentItemType() const;

  // Vault files of the user (VaultFiles.cpp)
  void EnumAllHXFiles(std::vector<std::wstring>& files);

  std::shared_ptr<CMapiForWDS> mapi_;  // first: it goes last, after all that came from it
  ULONG chunk_id_ = 0;
  LCID locale_;
  std::wstring url_;
  CHoardexURL::Kind kind_ = CHoardexURL::kUnknown;  // of url_, which never changes
  int link_index_ = -1;
  bool links_built_ = false;
  std::vector<std::wstring> vault_files_;
  size_t next_vault_file_ = 0;
  std::vector<std::wstring> child_urls_;
  std::vector<FILETIME> child_times_;
  Microsoft::WRL::ComPtr<IMessage> message_;
  int message_step_ = kMessageStart;
  int root_step_ = 1;
  PropertySet properties_[kPropertySources];
  std::wstring to_addresses_, cc_addresses_, bcc_addresses_, sender_addr_type_;
  bool is_flagged_ = false;
  HRESULT body_result_ = S_OK;
  std::wstring body_text_;
  size_t body_given_ = 0;  // characters of body_text_ already handed out
  Microsoft::WRL::ComPtr<IStream> body_stream_;
  bool text_done_ = false;
  bool summary_done_ = false;
  std::wstring summary_text_;
  std::wstring attachment_names_;
  Microsoft::WRL::ComPtr<IPersistStream> inner_persist_;
  Microsoft::WRL::ComPtr<IFilter> inner_filter_;
  std::wstring attachment_file_;
  std::wstring attachment_title_;
  std::wstring attachment_author_;
  FILETIME file_time_ = {};
  int attach_step_ = kAttachStart;
  std::wstring display_path_;
  std::wstring root_name_;
  Microsoft::WRL::ComPtr<IProtocolHandlerSite> site_;
};
