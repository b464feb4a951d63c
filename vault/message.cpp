#include "vault/message.h"

#include "vault/database.h"
#include "vault/heap.h"

namespace vault {

Message::Message(std::shared_ptr<const Database> db, const NodeInfo& node,
                 std::shared_ptr<const EnclosingMessage> outer)
    : db_(std::move(db)),
      node_(node),
      self_(std::make_shared<EnclosingMessage>(EnclosingMessage{node.data, outer ? outer->depth + 1 : 0, outer})),
      properties_(Heap::Open(db_, node, HeapClient::kProperties)) {}

std::u16string Message::message_class() const {
  return properties_.Text(prop::kMessageClass).value_or(u"");
}

std::u16string Message::subject() const {
  const auto stored = properties_.Text(prop::kSubject);
  return stored ? std::u16string(ParseSubject(*stored).text) : std::u16string();
}

Table Message::OpenTable(Nid nid) const {
  const auto node = db_->FindSubnode(node_.subnodes, nid);
  if (!node || node->data == 0) return {};
  return Table(Heap::Open(db_, *node, HeapClient::kTable));
}

Table Message::Recipients() const {
  return OpenTable(kRecipientTableNid);
}
Table Message::Attachments() const {
  return OpenTable(kAttachmentTableNid);
}

std::vector<Nid> Message::AttachmentNids() const {
  std::vector<Nid> nids;
  if (!node_.subnodes) return nids;
  bool whole = true;
  try {
    const Table table = Attachments();
    for (auto cursor = table.Walk(); cursor.Next();) {
      if (cursor.error()) {
        whole = false;
      } else {
        nids.push_back(cursor.row().id());
      }
    }
  } catch (const Error&) {
    whole = false;
  }
  if (whole) return nids;
  nids.clear();
  for (const NodeInfo& node : db_->ListSubnodes(node_.subnodes)) {
    if (TypeOf(node.nid) == NidType::kAttachment) nids.push_back(node.nid);
  }
  return nids;
}

Attachment Message::OpenAttachment(Nid nid) const {
  const auto node = db_->FindSubnode(node_.subnodes, nid);
  if (!node) throw Error(ErrorCode::kNotFound, "the message has no such attachment", std::nullopt, node_.nid);
  return {db_, *node, self_};
}

Attachment::Attachment(std::shared_ptr<const Database> db, const NodeInfo& node,
                       std::shared_ptr<const EnclosingMessage> owner)
    : db_(std::move(db)),
      node_(node),
      owner_(std::move(owner)),
      properties_(Heap::Open(db_, node, HeapClient::kProperties)) {}

AttachMethod Attachment::method() const {
  return static_cast<AttachMethod>(properties_.Int(prop::kAttachMethod).value_or(0));
}

std::optional<std::u16string> Attachment::file_name() const {
  for (const std::uint16_t id : {prop::kAttachLongFilename, prop::kAttachFilename}) {
    auto name = properties_.Text(id);
    if (name && !name->empty()) return name;
  }
  return std::nullopt;
}

Nid Attachment::ObjectNid() const {
  const auto value = properties_.Find(prop::kAttachData);
  if (!value || value->type() != PropType::kObject || value->bytes().size() < 4) return 0;
  return Load32(value->bytes().data());
}

std::optional<ValueReader> Attachment::Data() const {
  const auto value = properties_.Find(prop::kAttachData);
  if (value && value->type() == PropType::kBinary) return properties_.Open(*value);
  if (method() == AttachMethod::kEmbedded) return std::nullopt;
  const Nid nid = ObjectNid();
  const auto node = nid ? db_->FindSubnode(node_.subnodes, nid) : std::nullopt;
  if (!node) return std::nullopt;
  return ValueReader(db_, node->data, nid, PropType::kObject);
}

Message Attachment::OpenEmbedded() const {
  const Nid nid = method() == AttachMethod::kEmbedded ? ObjectNid() : 0;
  if (!nid) throw Error(ErrorCode::kNotFound, "the attachment holds no message", std::nullopt, node_.nid);
  if (owner_->depth + 1 > kMaxEmbeddingDepth) {
    throw Error(ErrorCode::kLimit, "messages are embedded in one another too deeply", std::nullopt, node_.nid);
  }
  const auto node = db_->FindSubnode(node_.subnodes, nid);
  if (!node) throw Error(ErrorCode::kNotFound, "an embedded message is not there", std::nullopt, node_.nid);
  for (const EnclosingMessage* outer = owner_.get(); outer; outer = outer->outer.get()) {
    if (outer->data == node->data) {
      throw Error(ErrorCode::kLimit, "a message is embedded in itself", std::nullopt, node_.nid);
    }
  }
  return {db_, *node, owner_};
}

}  // namespace vault
