// The properties of stores, folders, messages, attachments and recipients as a store provider shows them: what is in
// the file, and what MAPI promises besides.
#pragma once

#include <memory>

#include "platform/critical_section.h"
#include "provider/property.h"
#include "provider/store_file.h"

namespace provider {

// What identifies a folder or message and needs nothing but its place in the store.
struct Identity {
  const StoreFile& file;
  vault::Nid nid = 0;  // 0: an embedded message, which has no entry id
  vault::Nid parent = 0;
  ULONG object_type = 0;
};
// The property, if it is one of those.
std::optional<Value> FindIdentity(const Identity& identity, std::uint16_t id);
void ListIdentity(const Identity& identity, std::vector<vault::PropTag>& tags);

// PR_SUBJECT, PR_NORMALIZED_SUBJECT or PR_SUBJECT_PREFIX (`id`) from the subject as it is stored.
std::optional<Value> SubjectPart(const Value& stored, unsigned code_page, std::uint16_t id);

class StoreProperties : public PropertyBag {
 public:
  explicit StoreProperties(std::shared_ptr<StoreFile> file) : file_(std::move(file)) {}
  std::optional<Value> Find(std::uint16_t id) override;
  void List(std::vector<vault::PropTag>& tags) override;

 private:
  std::shared_ptr<StoreFile> file_;
};

class FolderProperties : public PropertyBag {
 public:
  FolderProperties(std::shared_ptr<StoreFile> file, vault::Folder folder)
      : file_(std::move(file)), folder_(std::move(folder)) {}
  std::optional<Value> Find(std::uint16_t id) override;
  void List(std::vector<vault::PropTag>& tags) override;
  const vault::Folder& folder() const { return folder_; }

 private:
  Identity identity() const { return {*file_, folder_.nid(), folder_.parent(), MAPI_FOLDER}; }
  std::shared_ptr<StoreFile> file_;
  vault::Folder folder_;
};

class MessageProperties : public PropertyBag {
 public:
  MessageProperties(std::shared_ptr<StoreFile> file, vault::Message message);
  std::optional<Value> Find(std::uint16_t id) override;
  void List(std::vector<vault::PropTag>& tags) override;
  unsigned CodePage() override { return code_page_; }
  const vault::Message& message() const { return message_; }

 private:
  std::optional<Value> Body();
  std::shared_ptr<const std::u16string> MakeBody();
  Value RecipientNames(std::uint16_t id);
  Value Size();
  std::optional<Value> Stored(std::uint16_t id) const { return FindStored(message_.properties(), id); }
  Identity identity() const { return {*file_, message_.depth() ? 0 : message_.nid(), message_.parent(), MAPI_MESSAGE}; }

  std::shared_ptr<StoreFile> file_;
  vault::Message message_;
  unsigned code_page_ = 0;
  CriticalSection body_lock_;
  bool body_made_ = false;
  std::shared_ptr<const std::u16string> body_;  // made from another form; null: there is none
};

class AttachmentProperties : public PropertyBag {
 public:
  AttachmentProperties(std::shared_ptr<MessageProperties> message, std::shared_ptr<StoreFile> file,
                       vault::Attachment attachment)
      : message_(std::move(message)), file_(std::move(file)), attachment_(std::move(attachment)) {}
  std::optional<Value> Find(std::uint16_t id) override;
  void List(std::vector<vault::PropTag>& tags) override;
  unsigned CodePage() override { return message_->CodePage(); }
  const vault::Attachment& attachment() const { return attachment_; }

 private:
  std::optional<std::u16string> Name(bool display);
  std::optional<Value> Time(std::uint16_t id);
  std::optional<Value> Stored(std::uint16_t id) const { return FindStored(attachment_.properties(), id); }

  std::shared_ptr<MessageProperties> message_;
  std::shared_ptr<StoreFile> file_;
  vault::Attachment attachment_;
};

// A row of a recipient table.
class RecipientProperties : public PropertyBag {
 public:
  RecipientProperties(std::shared_ptr<const vault::Table> table, vault::Table::Row row, std::uint32_t number,
                      unsigned code_page)
      : table_(std::move(table)), row_(row), number_(number), code_page_(code_page) {}
  std::optional<Value> Find(std::uint16_t id) override;
  void List(std::vector<vault::PropTag>& tags) override;
  unsigned CodePage() override { return code_page_; }

 private:
  std::shared_ptr<const vault::Table> table_;
  vault::Table::Row row_;
  std::uint32_t number_;
  unsigned code_page_;
};

// A cell of a stored table as a value.
std::optional<Value> FindCell(const vault::Table& table, const vault::Table::Row& row, std::uint16_t id);

}  // namespace provider
