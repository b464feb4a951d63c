#include "provider/items.h"
#include "provider/msg/copy.h"
#include "provider/objects.h"
#include "provider/prop_object.h"
#include "provider/table.h"

namespace provider {
namespace {

class RecipientRows : public RowSource {
 public:
  RecipientRows(vault::Table table, unsigned code_page)
      : table_(std::make_shared<const vault::Table>(std::move(table))), code_page_(code_page) {}
  std::uint32_t Count() const override { return table_->row_count(); }
  std::unique_ptr<PropertyBag> Row(std::uint32_t number) const override {
    try {
      return std::make_unique<RecipientProperties>(table_, table_->At(number), number, code_page_);
    } catch (const vault::Error& error) {
      return std::make_unique<DamagedProperties>(error);
    }
  }
  std::vector<vault::PropTag> DefaultColumns() const override {
    std::vector<vault::PropTag> tags = {PR_ROWID, PR_SMTP_ADDRESS_W};
    for (const vault::Table::Column& column : table_->columns()) tags.push_back(column.tag);
    return tags;
  }

 private:
  std::shared_ptr<const vault::Table> table_;
  unsigned code_page_;
};

// An attachment that cannot be opened keeps its number and key, so that the row can still be told from others.
class DamagedAttachment : public PropertyBag {
 public:
  DamagedAttachment(vault::Nid nid, vault::Error error) : nid_(nid), error_(std::move(error)) {}
  std::optional<Value> Find(std::uint16_t id) override {
    if (id == PROP_ID(PR_ATTACH_NUM)) return Value::Int(id, static_cast<std::int32_t>(nid_));
    throw error_;
  }
  void List(std::vector<vault::PropTag>&) override {}

 private:
  vault::Nid nid_;
  vault::Error error_;
};

class AttachmentRows : public RowSource {
 public:
  AttachmentRows(std::shared_ptr<StoreFile> file, std::shared_ptr<MessageProperties> message)
      : file_(std::move(file)), message_(std::move(message)), nids_(message_->message().AttachmentNids()) {}
  std::uint32_t Count() const override { return static_cast<std::uint32_t>(nids_.size()); }
  std::unique_ptr<PropertyBag> Row(std::uint32_t number) const override {
    try {
      return std::make_unique<AttachmentProperties>(message_, file_, message_->message().OpenAttachment(nids_[number]));
    } catch (const vault::Error& error) {
      return std::make_unique<DamagedAttachment>(nids_[number], error);
    }
  }
  std::vector<vault::PropTag> DefaultColumns() const override {
    return {PR_ATTACH_NUM,  PR_RECORD_KEY,    PR_DISPLAY_NAME_W,     PR_ATTACH_FILENAME_W,  PR_ATTACH_LONG_FILENAME_W,
            PR_ATTACH_SIZE, PR_ATTACH_METHOD, PR_RENDERING_POSITION, PR_ATTACH_EXTENSION_W, PR_ATTACH_MIME_TAG_W};
  }

 private:
  std::shared_ptr<StoreFile> file_;
  std::shared_ptr<MessageProperties> message_;
  std::vector<vault::Nid> nids_;
};

class Attachment : public PropObject<IAttach> {
 public:
  Attachment(const std::shared_ptr<StoreFile>& file, std::shared_ptr<AttachmentProperties> properties)
      : PropObject(Kind::kAttachment, file, properties), attachment_(properties->attachment()) {}

  STDMETHODIMP CopyTo(ULONG, LPCIID, LPSPropTagArray excluded, ULONG, LPMAPIPROGRESS, LPCIID iid, LPVOID to,
                      ULONG flags, LPSPropProblemArray* problems) override {
    return Guarded(
        "IMAPIProp::CopyTo",
        [&] {
          msg::CopyAttachment(this, {excluded, iid, to, flags}, problems);
        },
        problems);
  }

 protected:
  bool Implements(REFIID iid) const override { return iid == IID_IAttachment || PropObject::Implements(iid); }

  // The content is one property under two types: bytes of a file, or an object (message, storage).
  void OpenPropertyAs(ULONG tag, REFIID iid, ULONG flags, LPUNKNOWN* object) override {
    if (PROP_ID(tag) != PROP_ID(PR_ATTACH_DATA_BIN)) return PropObject::OpenPropertyAs(tag, iid, flags, object);
    const bool embedded = attachment_.method() == vault::AttachMethod::kEmbedded;
    if (iid == IID_IMessage || iid == IID_IMAPIProp) {
      Require(embedded, MAPI_E_INTERFACE_NOT_SUPPORTED);
      *object = MakeMessage(file_, attachment_.OpenEmbedded()).Detach();
      return;
    }
    const bool storage = iid == IID_IStorage;
    Require(storage || iid == IID_IStream || iid == IID_IStreamDocfile, MAPI_E_INTERFACE_NOT_SUPPORTED);
    Require(!embedded, MAPI_E_INTERFACE_NOT_SUPPORTED);
    auto data = attachment_.Data();
    if (!data) Fail(MAPI_E_NOT_FOUND);
    if (storage || iid == IID_IStreamDocfile) Require(IsCompoundFile(*data), MAPI_E_INTERFACE_NOT_SUPPORTED);
    if (storage) {
      *object = MakeStorage(data->ReadAll()).Detach();
      return;
    }
    Value value;
    value.reader = std::move(*data);
    *object = MakeStream(std::move(value)).Detach();
  }

 private:
  static bool IsCompoundFile(vault::ValueReader& data) {
    constexpr std::uint8_t kMark[] = {0xD0, 0xCF, 0x11, 0xE0, 0xA1, 0xB1, 0x1A, 0xE1};
    const auto begin = data.ReadAll(sizeof kMark);
    return std::equal(begin.begin(), begin.end(), std::begin(kMark), std::end(kMark));
  }

  const vault::Attachment attachment_;
};

class Message : public PropObject<IMessage> {
 public:
  Message(const std::shared_ptr<StoreFile>& file, std::shared_ptr<MessageProperties> properties)
      : PropObject(Kind::kMessage, file, properties), properties_(std::move(properties)) {}

  STDMETHODIMP CopyTo(ULONG, LPCIID, LPSPropTagArray excluded, ULONG, LPMAPIPROGRESS, LPCIID iid, LPVOID to,
                      ULONG flags, LPSPropProblemArray* problems) override {
    return Guarded(
        "IMAPIProp::CopyTo",
        [&] {
          msg::CopyMessage(this, {excluded, iid, to, flags}, problems);
        },
        problems);
  }

  STDMETHODIMP GetAttachmentTable(ULONG flags, LPMAPITABLE* table) override {
    return Guarded(
        "IMessage::GetAttachmentTable",
        [&] {
          Require(table != nullptr, MAPI_E_INVALID_PARAMETER);
          *table = MakeTable(std::make_shared<AttachmentRows>(file_, properties_), flags).Detach();
        },
        table);
  }
  STDMETHODIMP OpenAttach(ULONG number, LPCIID iid, ULONG flags, LPATTACH* attachment) override {
    return Guarded(
        "IMessage::OpenAttach",
        [&] {
          Require(attachment != nullptr, MAPI_E_INVALID_PARAMETER);
          Require(!(flags & MAPI_MODIFY) || (flags & MAPI_BEST_ACCESS), MAPI_E_NO_ACCESS);
          auto properties =
              std::make_shared<AttachmentProperties>(properties_, file_, message().OpenAttachment(number));
          HandOut(Ref<IAttach>(new Attachment(file_, std::move(properties))), iid, attachment);
        },
        attachment);
  }
  STDMETHODIMP CreateAttach(LPCIID, ULONG, ULONG*, LPATTACH* attachment) override {
    return Answer("IMessage::CreateAttach", MAPI_E_NO_ACCESS, attachment);
  }
  STDMETHODIMP DeleteAttach(ULONG, ULONG, LPMAPIPROGRESS, ULONG) override {
    return Answer("IMessage::DeleteAttach", MAPI_E_NO_ACCESS);
  }
  STDMETHODIMP GetRecipientTable(ULONG flags, LPMAPITABLE* table) override {
    return Guarded(
        "IMessage::GetRecipientTable",
        [&] {
          Require(table != nullptr, MAPI_E_INVALID_PARAMETER);
          *table = MakeTable(std::make_shared<RecipientRows>(message().Recipients(), properties_->CodePage()), flags)
                       .Detach();
        },
        table);
  }
  STDMETHODIMP ModifyRecipients(ULONG, LPADRLIST) override {
    return Answer("IMessage::ModifyRecipients", MAPI_E_NO_ACCESS);
  }
  STDMETHODIMP SubmitMessage(ULONG) override { return Answer("IMessage::SubmitMessage", MAPI_E_NO_SUPPORT); }
  STDMETHODIMP SetReadFlag(ULONG) override { return Answer("IMessage::SetReadFlag", MAPI_E_NO_ACCESS); }

 protected:
  bool Implements(REFIID iid) const override { return iid == IID_IMessage || PropObject::Implements(iid); }

 private:
  const vault::Message& message() const { return properties_->message(); }
  std::shared_ptr<MessageProperties> properties_;
};

}  // namespace

Ref<IMessage> MakeMessage(std::shared_ptr<StoreFile> file, vault::Message message) {
  auto properties = std::make_shared<MessageProperties>(file, std::move(message));
  return Ref<IMessage>(new Message(file, std::move(properties)));
}

}  // namespace provider
