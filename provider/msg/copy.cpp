#include "provider/msg/copy.h"

#include <algorithm>
#include <set>

#include "provider/memory.h"
#include "provider/msg/message.h"

namespace provider::msg {
namespace {

constexpr ULONG kPiece = 64;      // properties asked for at a time
constexpr LONG kRecipients = 64;  // recipients at a time
// Attachments may name one message several times, level after level: what is little in a store can be endless copied.
constexpr int kMostEmbedded = 10'000;

// What says where an item lies, and what a store computes from the rest.
constexpr ULONG kOfThePlace[] = {PR_ENTRYID,
                                 PR_PARENT_ENTRYID,
                                 PR_STORE_ENTRYID,
                                 PR_STORE_RECORD_KEY,
                                 PR_RECORD_KEY,
                                 PR_OBJECT_TYPE,
                                 PR_MAPPING_SIGNATURE,
                                 PR_STORE_SUPPORT_MASK,
                                 PR_MESSAGE_RECIPIENTS,
                                 PR_MESSAGE_ATTACHMENTS,
                                 PR_ATTACH_NUM,
                                 PR_ATTACH_DATA_BIN,
                                 PR_ACCESS,
                                 PR_ACCESS_LEVEL,
                                 PR_INSTANCE_KEY,
                                 PR_MDB_PROVIDER};

void Check(HRESULT result) {
  if (FAILED(result)) Fail(result);
}

struct FreedBuffer {
  ~FreedBuffer() { FreeBuffer(block); }
  void* block = nullptr;
  template <class T>
  T** As() {
    return reinterpret_cast<T**>(&block);
  }
};

struct Rows {
  ~Rows() {
    for (ULONG i = 0; set && i < set->cRows; ++i) FreeBuffer(set->aRow[i].lpProps);
    FreeBuffer(set);
  }
  LPSRowSet set = nullptr;
};

class Copier {
 public:
  // `embedded` counts the embedded messages of the whole copy.
  Copier(const CopyRequest& request, int& embedded) : embedded_(embedded) {
    for (const ULONG tag : kOfThePlace) excluded_.insert(PROP_ID(tag));
    for (ULONG i = 0; request.excluded && i < request.excluded->cValues; ++i)
      excluded_.insert(PROP_ID(request.excluded->aulPropTag[i])),
          asked_.insert(PROP_ID(request.excluded->aulPropTag[i]));
  }

  void Message(IMessage* from, IMessage* to) {
    Properties(from, to);
    Body(from, to);
    if (!asked_.contains(PROP_ID(PR_MESSAGE_RECIPIENTS))) Recipients(from, to);
    if (!asked_.contains(PROP_ID(PR_MESSAGE_ATTACHMENTS))) Attachments(from, to);
  }

  void Attachment(IAttach* from, IAttach* to) {
    Properties(from, to);
    Content(from, to);
  }

 private:
  void Properties(IMAPIProp* from, IMAPIProp* to) {
    FreedBuffer list;
    Check(from->GetPropList(MAPI_UNICODE, list.As<SPropTagArray>()));
    const auto* all = static_cast<const SPropTagArray*>(list.block);
    std::vector<ULONG> tags;
    for (ULONG i = 0; i < all->cValues; ++i)
      if (!excluded_.contains(PROP_ID(all->aulPropTag[i])) && PROP_TYPE(all->aulPropTag[i]) != PT_OBJECT)
        tags.push_back(all->aulPropTag[i]);
    const std::vector<ULONG> renamed = Renamed(from, to, tags);
    for (std::size_t at = 0; at < tags.size(); at += kPiece) {
      const std::size_t count = std::min<std::size_t>(kPiece, tags.size() - at);
      CopyPiece(from, to, {tags.data() + at, count}, {renamed.data() + at, count});
    }
  }

  // The tags under which the destination knows named properties; 0 for one whose name is lost.
  std::vector<ULONG> Renamed(IMAPIProp* from, IMAPIProp* to, const std::vector<ULONG>& tags) {
    std::vector<ULONG> renamed = tags, named;
    std::vector<std::size_t> places;
    for (std::size_t i = 0; i < tags.size(); ++i)
      if (PROP_ID(tags[i]) >= 0x8000) named.push_back(tags[i]), places.push_back(i);
    if (named.empty()) return renamed;
    std::vector<ULONG> array = {static_cast<ULONG>(named.size())};
    array.insert(array.end(), named.begin(), named.end());
    auto* ids = reinterpret_cast<SPropTagArray*>(array.data());
    FreedBuffer names;
    ULONG count = 0;
    Check(from->GetNamesFromIDs(&ids, nullptr, 0, &count, names.As<LPMAPINAMEID>()));
    auto** known = static_cast<LPMAPINAMEID*>(names.block);
    std::vector<LPMAPINAMEID> wanted;
    for (std::size_t i = 0; i < places.size(); ++i)
      if (i < count && known[i]) wanted.push_back(known[i]);
    FreedBuffer made;
    if (!wanted.empty())
      Check(
          to->GetIDsFromNames(static_cast<ULONG>(wanted.size()), wanted.data(), MAPI_CREATE, made.As<SPropTagArray>()));
    const auto* created = static_cast<const SPropTagArray*>(made.block);
    for (std::size_t i = 0, next = 0; i < places.size(); ++i) {
      const bool has_name = i < count && known[i];
      renamed[places[i]] = has_name ? CHANGE_PROP_TYPE(created->aulPropTag[next++], PROP_TYPE(named[i])) : 0;
    }
    return renamed;
  }

  void CopyPiece(IMAPIProp* from, IMAPIProp* to, std::span<const ULONG> tags, std::span<const ULONG> renamed) {
    std::vector<ULONG> array = {static_cast<ULONG>(tags.size())};
    array.insert(array.end(), tags.begin(), tags.end());
    FreedBuffer buffer;
    ULONG count = 0;
    Check(
        from->GetProps(reinterpret_cast<SPropTagArray*>(array.data()), MAPI_UNICODE, &count, buffer.As<SPropValue>()));
    const auto* values = static_cast<const SPropValue*>(buffer.block);
    std::vector<SPropValue> set;
    for (ULONG i = 0; i < count && i < tags.size(); ++i) {
      if (!renamed[i]) continue;
      if (PROP_TYPE(values[i].ulPropTag) != PT_ERROR) {
        set.push_back(values[i]);
        set.back().ulPropTag = CHANGE_PROP_TYPE(renamed[i], PROP_TYPE(values[i].ulPropTag));
      } else if (values[i].Value.err == MAPI_E_NOT_ENOUGH_MEMORY) {
        CopyLong(from, tags[i], to, renamed[i]);
      }
    }
    if (!set.empty()) Check(to->SetProps(static_cast<ULONG>(set.size()), set.data(), nullptr));
  }

  // A value that is too long for GetProps.
  void CopyLong(IMAPIProp* from, ULONG tag, IMAPIProp* to, ULONG renamed) {
    Ref<IStream> in, out;
    if (FAILED(from->OpenProperty(tag, &IID_IStream, 0, 0, reinterpret_cast<LPUNKNOWN*>(in.Receive())))) return;
    Check(to->OpenProperty(renamed, &IID_IStream, 0, MAPI_CREATE | MAPI_MODIFY,
                           reinterpret_cast<LPUNKNOWN*>(out.Receive())));
    CopyAll(in.get(), out.get());
  }

  static void CopyAll(IStream* in, IStream* out) {
    ULARGE_INTEGER all;
    all.QuadPart = ~0ULL;
    Check(in->CopyTo(out, all, nullptr, nullptr));
    Check(out->Commit(STGC_DEFAULT));
  }

  // Left out of the copy, the plain text is computed by a message of ours.
  void Body(IMessage* from, IMessage* to) {
    if (!asked_.contains(PROP_ID(PR_BODY))) return;
    Ref<IComputedBody> computes;
    if (FAILED(to->QueryInterface(kComputedBody, reinterpret_cast<void**>(computes.Receive())))) return;
    Ref<IStream> text;
    if (SUCCEEDED(from->OpenProperty(PR_BODY_W, &IID_IStream, 0, 0, reinterpret_cast<LPUNKNOWN*>(text.Receive()))))
      computes->OfferBody(text.get());
  }

  void Recipients(IMessage* from, IMessage* to) {
    Ref<IMAPITable> table;
    Check(from->GetRecipientTable(MAPI_UNICODE, table.Receive()));
    FreedBuffer columns;
    Check(table->QueryColumns(TBL_ALL_COLUMNS, columns.As<SPropTagArray>()));
    Check(table->SetColumns(static_cast<SPropTagArray*>(columns.block), 0));
    for (;;) {
      Rows rows;
      Check(table->QueryRows(kRecipients, 0, &rows.set));
      if (!rows.set || !rows.set->cRows) return;
      for (ULONG i = 0; i < rows.set->cRows; ++i) {
        std::vector<SPropValue> values;
        const SRow& row = rows.set->aRow[i];
        const auto storable = [](const SPropValue& value) {
          const ULONG type = PROP_TYPE(value.ulPropTag);
          return type != PT_ERROR && type != PT_NULL && type != PT_OBJECT;
        };
        std::copy_if(row.lpProps, row.lpProps + row.cValues, std::back_inserter(values), storable);
        ADRLIST list = {1, {{0, static_cast<ULONG>(values.size()), values.data()}}};
        Check(to->ModifyRecipients(MODRECIP_ADD, &list));
      }
    }
  }

  void Attachments(IMessage* from, IMessage* to) {
    Ref<IMAPITable> table;
    Check(from->GetAttachmentTable(MAPI_UNICODE, table.Receive()));
    SizedSPropTagArray(1, columns) = {1, {PR_ATTACH_NUM}};
    Check(table->SetColumns(reinterpret_cast<LPSPropTagArray>(&columns), 0));
    for (;;) {
      Rows rows;
      Check(table->QueryRows(kRecipients, 0, &rows.set));
      if (!rows.set || !rows.set->cRows) return;
      for (ULONG i = 0; i < rows.set->cRows; ++i) {
        const SRow& row = rows.set->aRow[i];
        if (!row.cValues || row.lpProps[0].ulPropTag != PR_ATTACH_NUM) continue;
        Ref<IAttach> in, out;
        ULONG number = 0;
        Check(from->OpenAttach(static_cast<ULONG>(row.lpProps[0].Value.l), nullptr, MAPI_BEST_ACCESS, in.Receive()));
        Check(to->CreateAttach(nullptr, 0, &number, out.Receive()));
        // Exclusions are of the message, not of what is attached to it.
        Copier(CopyRequest{}, embedded_).Attachment(in.get(), out.get());
        Check(out->SaveChanges(0));
      }
    }
  }

  void Content(IAttach* from, IAttach* to) {
    const auto open = [&](ULONG tag, REFIID iid, auto& in, auto& out) {
      if (FAILED(from->OpenProperty(tag, &iid, 0, 0, reinterpret_cast<LPUNKNOWN*>(in.Receive())))) return false;
      Check(to->OpenProperty(tag, &iid, 0, MAPI_CREATE | MAPI_MODIFY, reinterpret_cast<LPUNKNOWN*>(out.Receive())));
      return true;
    };
    Ref<IMessage> message, message_copy;
    if (open(PR_ATTACH_DATA_OBJ, IID_IMessage, message, message_copy)) {
      Require(++embedded_ <= kMostEmbedded, MAPI_E_TOO_BIG);
      Copier(CopyRequest{}, embedded_).Message(message.get(), message_copy.get());
      return Check(message_copy->SaveChanges(KEEP_OPEN_READWRITE));
    }
    if (IsOle(from)) {
      Ref<IStorage> storage, storage_copy;
      if (open(PR_ATTACH_DATA_OBJ, IID_IStorage, storage, storage_copy))
        return Check(storage->CopyTo(0, nullptr, nullptr, storage_copy.get()));
    }
    Ref<IStream> stream, stream_copy;
    if (open(PR_ATTACH_DATA_BIN, IID_IStream, stream, stream_copy)) CopyAll(stream.get(), stream_copy.get());
  }

  static bool IsOle(IAttach* from) {
    SizedSPropTagArray(1, tag) = {1, {PR_ATTACH_METHOD}};
    FreedBuffer buffer;
    ULONG count = 0;
    if (FAILED(from->GetProps(reinterpret_cast<LPSPropTagArray>(&tag), 0, &count, buffer.As<SPropValue>())))
      return false;
    const auto* value = static_cast<const SPropValue*>(buffer.block);
    return count && value->ulPropTag == PR_ATTACH_METHOD && value->Value.l == ATTACH_OLE;
  }

  std::set<ULONG> excluded_, asked_;
  int& embedded_;
};

template <class Interface>
Ref<Interface> Destination(const CopyRequest& request, REFIID iid) {
  Require(request.destination && request.interface_id, MAPI_E_INVALID_PARAMETER);
  Require(*request.interface_id == iid, MAPI_E_INTERFACE_NOT_SUPPORTED);
  Require(!(request.flags & MAPI_MOVE), MAPI_E_NO_ACCESS);
  auto* to = static_cast<Interface*>(request.destination);
  to->AddRef();
  return Ref<Interface>(to);
}

}  // namespace

void CopyMessage(IMessage* from, const CopyRequest& request, LPSPropProblemArray* problems) {
  if (problems) *problems = nullptr;
  int embedded = 0;
  Copier(request, embedded).Message(from, Destination<IMessage>(request, IID_IMessage).get());
}

void CopyAttachment(IAttach* from, const CopyRequest& request, LPSPropProblemArray* problems) {
  if (problems) *problems = nullptr;
  int embedded = 0;
  Copier(request, embedded).Attachment(from, Destination<IAttach>(request, IID_IAttachment).get());
}

}  // namespace provider::msg
