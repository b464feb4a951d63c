// Messages and attachments ([MS-PST] 2.4.5, 2.4.6).
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "vault/node.h"
#include "vault/property_set.h"
#include "vault/table.h"
#include "vault/types.h"

namespace vault {

class Attachment;

// Messages within messages beyond this depth are refused (kLimit), and so is a message within itself: a store whose
// subnodes form a circle cannot lead a caller astray.
inline constexpr unsigned kMaxEmbeddingDepth = 32;

// A message and those that it is embedded in. Immutable.
struct EnclosingMessage {
  Bid data = 0;  // of the message's node
  unsigned depth = 0;
  std::shared_ptr<const EnclosingMessage> outer;
};

// A message of a folder, or one embedded in an attachment. A cheap handle; see store.h for threads and lifetime.
class Message {
 public:
  // For the store and for Attachment: opens the message's properties. `outer` is null for a message of a folder.
  // Throws Error.
  Message(std::shared_ptr<const Database> db, const NodeInfo& node, std::shared_ptr<const EnclosingMessage> outer);

  // The node; for an embedded message its subnode's id, which is no node of the node tree.
  Nid nid() const { return node_.nid; }
  // The folder; 0 for an embedded message.
  Nid parent() const { return node_.parent; }
  // 0: lies in a folder; n: embedded in a message of depth n - 1.
  unsigned depth() const { return self_->depth; }
  // A hidden message of a folder's associated table.
  bool is_associated() const { return TypeOf(node_.nid) == NidType::kAssociatedMessage; }

  const PropertySet& properties() const { return properties_; }
  // PR_MESSAGE_CLASS, and PR_SUBJECT without its two lead characters; empty when missing.
  std::u16string message_class() const;
  std::u16string subject() const;

  // Empty tables when the message has none. Throw Error when they are damaged.
  Table Recipients() const;
  Table Attachments() const;
  // Nodes of the attachments: rows of the table, or where the table is missing or damaged the attachment subnodes.
  std::vector<Nid> AttachmentNids() const;
  // `nid`: a row id of Attachments(). Throws Error (kNotFound when there is none).
  Attachment OpenAttachment(Nid nid) const;

 private:
  Table OpenTable(Nid nid) const;

  std::shared_ptr<const Database> db_;
  NodeInfo node_;
  std::shared_ptr<const EnclosingMessage> self_;
  PropertySet properties_;
};

// One attachment. A cheap handle; see store.h for threads and lifetime.
class Attachment {
 public:
  // For Message: opens the attachment's properties. Throws Error.
  Attachment(std::shared_ptr<const Database> db, const NodeInfo& node, std::shared_ptr<const EnclosingMessage> owner);

  Nid nid() const { return node_.nid; }
  const PropertySet& properties() const { return properties_; }
  // PR_ATTACH_METHOD; kNone when missing.
  AttachMethod method() const;
  // The long file name, else the short one; nullopt when it has neither.
  std::optional<std::u16string> file_name() const;

  // PR_ATTACH_DATA: the content of a file attachment, or the storage of an OLE object. nullopt when there is none (for
  // example a link, or an embedded message). Throws Error.
  std::optional<ValueReader> Data() const;
  // The message of an attachment of method kEmbedded. Throws Error (kNotFound for other attachments).
  Message OpenEmbedded() const;

 private:
  // The subnode named by PR_ATTACH_DATA of type object; 0 when there is none.
  Nid ObjectNid() const;

  std::shared_ptr<const Database> db_;
  NodeInfo node_;
  std::shared_ptr<const EnclosingMessage> owner_;
  PropertySet properties_;
};

}  // namespace vault
