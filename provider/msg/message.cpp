#include "provider/msg/message.h"
#include "provider/memory.h"

#include <cstring>

#include "provider/strings.h"

namespace provider::msg {
namespace {

constexpr ULONG kUnicodeStore = 0x00040000, kSupportMask = kUnicodeStore | 0x00000E79;
constexpr std::uint32_t kMostAttachments = 2048;  // clients refuse files with more
constexpr std::size_t kRootHeader = 32, kEmbeddedHeader = 24, kChildHeader = 8;

std::uint16_t Id(ULONG tag) {
  return static_cast<std::uint16_t>(PROP_ID(tag));
}

// What all objects of one file share.
struct File {
  Strings strings;
  NameTable names;
};

std::wstring Numbered(const wchar_t* name, std::uint32_t number) {
  wchar_t text[40] = {};
  _snwprintf(text, std::size(text) - 1, L"%ls_version1.0_#%08lX", name, static_cast<unsigned long>(number));
  return text;
}

// IMAPIProp for an object that is being written.
template <class Interface>
class Written : public Object<Interface> {
 public:
  STDMETHODIMP GetLastError(HRESULT code, ULONG flags, LPMAPIERROR* error) override {
    return this->LastError("IMAPIProp::GetLastError", code, flags, error);
  }
  STDMETHODIMP SaveChanges(ULONG) override {
    return this->Guarded("IMAPIProp::SaveChanges", [&] { Save(); });
  }
  STDMETHODIMP GetProps(LPSPropTagArray, ULONG, ULONG* count, LPSPropValue* values) override {
    return this->Answer("IMAPIProp::GetProps", MAPI_E_NO_SUPPORT, count, values);
  }
  STDMETHODIMP GetPropList(ULONG, LPSPropTagArray* tags) override {
    return this->Answer("IMAPIProp::GetPropList", MAPI_E_NO_SUPPORT, tags);
  }
  STDMETHODIMP OpenProperty(ULONG tag, LPCIID iid, ULONG, ULONG flags, LPUNKNOWN* object) override {
    return this->Guarded(
        "IMAPIProp::OpenProperty",
        [&] {
          Require(object != nullptr && iid != nullptr, MAPI_E_INVALID_PARAMETER);
          Require(flags & MAPI_CREATE, MAPI_E_NO_SUPPORT);  // what is written is not read again
          Open(tag, *iid, object);
        },
        object);
  }
  STDMETHODIMP SetProps(ULONG count, LPSPropValue values, LPSPropProblemArray* problems) override {
    return this->Guarded(
        "IMAPIProp::SetProps",
        [&] {
          Require(values != nullptr || !count, MAPI_E_INVALID_PARAMETER);
          std::vector<SPropProblem> refused;
          for (ULONG i = 0; i < count; ++i)
            if (!properties_.Set(values[i])) refused.push_back({i, values[i].ulPropTag, MAPI_E_NO_SUPPORT});
          if (problems && !refused.empty()) *problems = Problems(refused);
        },
        problems);
  }
  STDMETHODIMP DeleteProps(LPSPropTagArray tags, LPSPropProblemArray* problems) override {
    return this->Guarded(
        "IMAPIProp::DeleteProps",
        [&] {
          Require(tags != nullptr, MAPI_E_INVALID_PARAMETER);
          for (ULONG i = 0; i < tags->cValues; ++i) properties_.Remove(Id(tags->aulPropTag[i]));
        },
        problems);
  }
  STDMETHODIMP CopyTo(ULONG, LPCIID, LPSPropTagArray, ULONG, LPMAPIPROGRESS, LPCIID, LPVOID, ULONG,
                      LPSPropProblemArray* problems) override {
    return this->Answer("IMAPIProp::CopyTo", MAPI_E_NO_SUPPORT, problems);
  }
  STDMETHODIMP CopyProps(LPSPropTagArray, ULONG, LPMAPIPROGRESS, LPCIID, LPVOID, ULONG,
                         LPSPropProblemArray* problems) override {
    return this->Answer("IMAPIProp::CopyProps", MAPI_E_NO_SUPPORT, problems);
  }
  STDMETHODIMP GetNamesFromIDs(LPSPropTagArray*, LPGUID, ULONG, ULONG* count, LPMAPINAMEID** names) override {
    return this->Answer("IMAPIProp::GetNamesFromIDs", MAPI_E_NO_SUPPORT, count, names);
  }
  STDMETHODIMP GetIDsFromNames(ULONG count, LPMAPINAMEID* names, ULONG, LPSPropTagArray* tags) override {
    return this->Guarded(
        "IMAPIProp::GetIDsFromNames",
        [&] {
          Require(count && names && tags, MAPI_E_INVALID_PARAMETER);
          MapiArena arena;
          auto* ids = static_cast<SPropTagArray*>(arena.Allocate(CbNewSPropTagArray(count)));
          ids->cValues = count;
          for (ULONG i = 0; i < count; ++i) ids->aulPropTag[i] = PROP_TAG(PT_UNSPECIFIED, file_->names.IdOf(names[i]));
          arena.Release();
          *tags = ids;
        },
        tags);
  }

 protected:
  Written(Kind kind, std::shared_ptr<File> file, Ref<IStorage> storage)
      : Object<Interface>(kind), file_(std::move(file)), properties_(std::move(storage), file_->strings) {}
  bool Implements(REFIID iid) const override { return iid == IID_IMAPIProp; }

  virtual void Save() = 0;
  virtual void Open(ULONG tag, REFIID iid, LPUNKNOWN* object) {
    Require(iid == IID_IStream, MAPI_E_INTERFACE_NOT_SUPPORTED);
    const ULONG type = PROP_TYPE(tag);
    Require(type == PT_BINARY || properties_.Stored(tag) == tag, MAPI_E_NO_SUPPORT);
    *object = properties_.CreateValue(tag).Detach();
  }

  std::shared_ptr<File> file_;
  PropertyStorage properties_;

 private:
  static SPropProblemArray* Problems(const std::vector<SPropProblem>& refused) {
    MapiArena arena;
    auto* array = static_cast<SPropProblemArray*>(arena.Allocate(CbNewSPropProblemArray(refused.size())));
    array->cProblem = static_cast<ULONG>(refused.size());
    std::copy(refused.begin(), refused.end(), array->aProblem);
    arena.Release();
    return array;
  }
};

Ref<IMessage> CreateMessage(std::shared_ptr<File> file, Ref<IStorage> storage);

class FileAttachment final : public Written<IAttach> {
 public:
  FileAttachment(std::shared_ptr<File> file, Ref<IStorage> storage, ULONG number)
      : Written(Kind::kAttachment, std::move(file), std::move(storage)) {
    properties_.SetLong(PR_ATTACH_NUM, static_cast<std::int32_t>(number));
  }

 protected:
  bool Implements(REFIID iid) const override { return iid == IID_IAttachment || Written::Implements(iid); }
  void Save() override {
    constexpr std::uint8_t kHeader[kChildHeader] = {};
    properties_.Write(kHeader);
  }
  void Open(ULONG tag, REFIID iid, LPUNKNOWN* object) override {
    using ObjectKind = PropertyStorage::ObjectKind;
    if (tag != PR_ATTACH_DATA_OBJ) return Written::Open(tag, iid, object);
    if (iid == IID_IMessage) {
      *object = CreateMessage(file_, properties_.CreateObject(tag, ObjectKind::kMessage)).Detach();
      return;
    }
    Require(iid == IID_IStorage, MAPI_E_INTERFACE_NOT_SUPPORTED);
    *object = properties_.CreateObject(tag, ObjectKind::kStorage).Detach();
  }
};

class FileMessage final : public Written<IMessage>, public IComputedBody {
 public:
  FileMessage(std::shared_ptr<File> file, Ref<IStorage> storage, bool root, bool commit, Released released)
      : Written(Kind::kMessage, std::move(file), std::move(storage)),
        root_(root),
        commit_(commit),
        released_(released) {
    if (root_) properties_.SetLong(PR_STORE_SUPPORT_MASK, file_->strings == Strings::kUnicode ? kSupportMask : 0);
  }
  ~FileMessage() override {
    if (released_.call) released_.call(released_.data, this);
  }

  STDMETHODIMP QueryInterface(REFIID iid, void** object) override {
    if (!object || iid != kComputedBody) return Written::QueryInterface(iid, object);
    *object = static_cast<IComputedBody*>(this);
    Increment();
    return S_OK;
  }
  STDMETHODIMP_(ULONG) AddRef() override { return Written::AddRef(); }
  STDMETHODIMP_(ULONG) Release() override { return Written::Release(); }
  void STDMETHODCALLTYPE OfferBody(IStream* text) override {
    if (text) text->AddRef();
    body_ = Ref<IStream>(text);
  }

  STDMETHODIMP GetAttachmentTable(ULONG, LPMAPITABLE* table) override {
    return Answer("IMessage::GetAttachmentTable", MAPI_E_NO_SUPPORT, table);
  }
  STDMETHODIMP OpenAttach(ULONG, LPCIID, ULONG, LPATTACH* attachment) override {
    return Answer("IMessage::OpenAttach", MAPI_E_NO_SUPPORT, attachment);
  }
  STDMETHODIMP CreateAttach(LPCIID iid, ULONG, ULONG* number, LPATTACH* attachment) override {
    return Guarded(
        "IMessage::CreateAttach",
        [&] {
          Require(number && attachment, MAPI_E_INVALID_PARAMETER);
          Require(attachments_ < kMostAttachments, MAPI_E_TOO_BIG);
          Ref<IStorage> storage = CreateStorage(properties_.storage(), Numbered(L"__attach", attachments_));
          HandOut(Ref<IAttach>(new FileAttachment(file_, std::move(storage), attachments_)), iid, attachment);
          *number = attachments_++;
        },
        attachment);
  }
  STDMETHODIMP DeleteAttach(ULONG, ULONG, LPMAPIPROGRESS, ULONG) override {
    return Answer("IMessage::DeleteAttach", MAPI_E_NO_SUPPORT);
  }
  STDMETHODIMP GetRecipientTable(ULONG, LPMAPITABLE* table) override {
    return Answer("IMessage::GetRecipientTable", MAPI_E_NO_SUPPORT, table);
  }
  STDMETHODIMP ModifyRecipients(ULONG flags, LPADRLIST list) override {
    return Guarded("IMessage::ModifyRecipients", [&] {
      Require(list != nullptr, MAPI_E_INVALID_PARAMETER);
      Require(flags == MODRECIP_ADD, MAPI_E_NO_SUPPORT);
      for (ULONG i = 0; i < list->cEntries; ++i) AddRecipient(list->aEntries[i]);
    });
  }
  STDMETHODIMP SubmitMessage(ULONG) override { return Answer("IMessage::SubmitMessage", MAPI_E_NO_SUPPORT); }
  STDMETHODIMP SetReadFlag(ULONG) override { return Answer("IMessage::SetReadFlag", MAPI_E_NO_SUPPORT); }

 protected:
  bool Implements(REFIID iid) const override { return iid == IID_IMessage || Written::Implements(iid); }

  void Save() override {
    ComputeBody();
    // Counts stand behind eight zero bytes: the next number of each, then how many there are.
    std::uint32_t header[kRootHeader / 4] = {0, 0, recipients_, attachments_, recipients_, attachments_};
    properties_.Write({reinterpret_cast<const std::uint8_t*>(header), root_ ? kRootHeader : kEmbeddedHeader});
    if (!root_) return;
    file_->names.Write(properties_.storage());
    if (!commit_) return;
    const HRESULT result = properties_.storage()->Commit(STGC_DEFAULT);
    if (FAILED(result)) Fail(result);
  }

 private:
  void AddRecipient(const ADRENTRY& entry) {
    Require(entry.rgPropVals != nullptr || !entry.cValues, MAPI_E_INVALID_PARAMETER);
    PropertyStorage recipient(CreateStorage(properties_.storage(), Numbered(L"__recip", recipients_)), file_->strings);
    for (ULONG i = 0; i < entry.cValues; ++i) recipient.Set(entry.rgPropVals[i]);
    recipient.SetLong(PR_ROWID, static_cast<std::int32_t>(recipients_));
    constexpr std::uint8_t kHeader[kChildHeader] = {};
    recipient.Write(kHeader);
    ++recipients_;
  }

  void ComputeBody() {
    if (!body_ || properties_.Has(Id(PR_BODY))) return;
    const Ref<IStream> to = properties_.CreateValue(PR_BODY_W);
    ULARGE_INTEGER all, read, written;
    all.QuadPart = ~0ULL;
    if (file_->strings == Strings::kUnicode) {
      const HRESULT result = body_->CopyTo(to.get(), all, &read, &written);
      if (FAILED(result)) Fail(result);
    } else {
      // In pieces, an odd byte at the end of one never: the stream holds whole characters.
      std::vector<wchar_t> piece(32 * 1024);
      for (ULONG got = 0;;) {
        const HRESULT result = body_->Read(piece.data(), static_cast<ULONG>(piece.size() * sizeof(wchar_t)), &got);
        if (FAILED(result)) Fail(result);
        if (!got) break;
        const std::string text = Narrow(AsUtf16({piece.data(), got / sizeof(wchar_t)}));
        const HRESULT put = to->Write(text.data(), static_cast<ULONG>(text.size()), nullptr);
        if (FAILED(put)) Fail(put);
      }
    }
    body_ = {};
  }

  const bool root_, commit_;
  const Released released_;
  std::uint32_t recipients_ = 0, attachments_ = 0;
  Ref<IStream> body_;
};

Ref<IMessage> CreateMessage(std::shared_ptr<File> file, Ref<IStorage> storage) {
  return Ref<IMessage>(new FileMessage(std::move(file), std::move(storage), false, false, {}));
}

}  // namespace

Ref<IMessage> CreateOnStorage(IStorage* storage, Strings strings, bool commit, Released released) {
  Ref<IStream> present;
  if (SUCCEEDED(storage->OpenStream(L"__properties_version1.0", nullptr, STGM_READ | STGM_SHARE_EXCLUSIVE, 0,
                                    present.Receive())))
    Fail(MAPI_E_NO_SUPPORT, "Message files are only written");
  storage->AddRef();
  auto file = std::make_shared<File>(File{strings, {}});
  return Ref<IMessage>(new FileMessage(std::move(file), Ref<IStorage>(storage), true, commit, released));
}

}  // namespace provider::msg
