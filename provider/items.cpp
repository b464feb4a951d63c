#include "provider/items.h"

#include <algorithm>

#include "vault/text/body.h"

namespace provider {
namespace {

using vault::MakeTag;
using vault::PropType;

constexpr std::uint16_t Id(ULONG tag) {
  return static_cast<std::uint16_t>(PROP_ID(tag));
}

Value EntryIdValue(const StoreFile& file, std::uint16_t id, vault::Nid nid) {
  const vault::EntryId entry_id = file.store().MakeEntryId(nid);
  return Value::Owned(MakeTag(id, PropType::kBinary), {entry_id.begin(), entry_id.end()});
}

Value UidValue(const StoreFile& file, std::uint16_t id) {
  return Value::Of(MakeTag(id, PropType::kBinary), file.store().uid());
}

Value NidValue(std::uint16_t id, vault::Nid nid) {
  std::vector<std::uint8_t> bytes(4);
  for (unsigned i = 0; i < 4; ++i) bytes[i] = static_cast<std::uint8_t>(nid >> (8 * i));
  return Value::Owned(MakeTag(id, PropType::kBinary), std::move(bytes));
}

// A number that a damaged part of the store must not keep the caller from.
template <class Count>
std::int32_t CountOrZero(Count&& count) {
  try {
    return static_cast<std::int32_t>(count());
  } catch (const vault::Error&) {
    return 0;
  }
}

std::u16string StringOf(const std::optional<Value>& value, unsigned code_page) {
  constexpr std::uint64_t kLongestName = 4096;
  return value ? TextOf(*value, code_page, kLongestName) : std::u16string();
}

constexpr ULONG kStoreSupport = STORE_ENTRYID_UNIQUE | STORE_READONLY | STORE_ATTACH_OK | STORE_OLE_OK | STORE_RTF_OK |
                                STORE_HTML_OK | STORE_UNICODE_OK;

constexpr ULONG kIdentityTags[] = {PR_ENTRYID,           PR_RECORD_KEY,        PR_PARENT_ENTRYID, PR_STORE_ENTRYID,
                                   PR_STORE_RECORD_KEY,  PR_OBJECT_TYPE,       PR_ACCESS,         PR_ACCESS_LEVEL,
                                   PR_MAPPING_SIGNATURE, PR_STORE_SUPPORT_MASK};

}  // namespace

std::optional<Value> FindIdentity(const Identity& identity, std::uint16_t id) {
  const StoreFile& file = identity.file;
  switch (id) {
    case Id(PR_ENTRYID):
    case Id(PR_RECORD_KEY):
      if (!identity.nid) return {};
      return EntryIdValue(file, id, identity.nid);
    case Id(PR_INSTANCE_KEY):
      if (!identity.nid) return {};
      return NidValue(id, identity.nid);
    case Id(PR_PARENT_ENTRYID):
      if (!identity.parent) return {};
      return EntryIdValue(file, id, identity.parent);
    case Id(PR_STORE_ENTRYID):
      return Value::Of(MakeTag(id, PropType::kBinary), file.entry_id());
    case Id(PR_STORE_RECORD_KEY):
    case Id(PR_MAPPING_SIGNATURE):
      return UidValue(file, id);
    case Id(PR_OBJECT_TYPE):
      return Value::Int(id, static_cast<std::int32_t>(identity.object_type));
    case Id(PR_ACCESS):
      return Value::Int(id, MAPI_ACCESS_READ);
    case Id(PR_ACCESS_LEVEL):
      return Value::Int(id, 0);
    case Id(PR_STORE_SUPPORT_MASK):
      return Value::Int(id, kStoreSupport);
    default:
      return {};
  }
}

void ListIdentity(const Identity& identity, std::vector<vault::PropTag>& tags) {
  for (const ULONG tag : kIdentityTags)
    if (FindIdentity(identity, Id(tag))) tags.push_back(tag);
}

std::optional<Value> SubjectPart(const Value& stored, unsigned code_page, std::uint16_t id) {
  const std::u16string text = TextOf(stored, code_page);
  const vault::Subject subject = vault::ParseSubject(text);
  if (id == Id(PR_SUBJECT)) return Value::Text(id, subject.text);
  return Value::Text(id, id == Id(PR_SUBJECT_PREFIX) ? subject.prefix() : subject.normalized());
}

std::optional<Value> FindCell(const vault::Table& table, const vault::Table::Row& row, std::uint16_t id) {
  const auto cell = row.Find(id);
  if (!cell) return {};
  Value value = Value::Of(cell->tag(), cell->bytes());
  if (cell->is_long()) value.reader = table.Open(*cell);
  return value;
}

// --- store

std::optional<Value> StoreProperties::Find(std::uint16_t id) {
  const vault::Store& store = file_->store();
  switch (id) {
    case Id(PR_ENTRYID):
    case Id(PR_STORE_ENTRYID):
      return Value::Of(MakeTag(id, PropType::kBinary), file_->entry_id());
    case Id(PR_RECORD_KEY):
      return UidValue(*file_, id);
    case Id(PR_MDB_PROVIDER):
      return Value::Of(MakeTag(id, PropType::kBinary), {kStoreProviderUid.ab, sizeof kStoreProviderUid.ab});
    case Id(PR_IPM_SUBTREE_ENTRYID):
      if (!store.HasNode(store.subtree())) return {};
      return EntryIdValue(*file_, id, store.subtree());
    case Id(PR_DISPLAY_NAME): {
      const std::u16string name = store.name();
      if (!name.empty()) return Value::Text(id, name);
      const std::size_t begin = file_->path().find_last_of(u"\\/") + 1;
      return Value::Text(id, file_->path().substr(begin, file_->path().rfind(u'.') - begin));
    }
    case Id(PR_PARENT_ENTRYID):
      return {};
    default:
      break;
  }
  if (auto value = FindIdentity({*file_, 0, 0, MAPI_STORE}, id)) return value;
  return FindStored(store.properties(), id);
}

void StoreProperties::List(std::vector<vault::PropTag>& tags) {
  for (const ULONG tag : {PR_ENTRYID, PR_RECORD_KEY, PR_MDB_PROVIDER, PR_IPM_SUBTREE_ENTRYID, PR_DISPLAY_NAME_W}) {
    if (Find(Id(tag))) tags.push_back(tag);
  }
  ListIdentity({*file_, 0, 0, MAPI_STORE}, tags);
  ListStored(file_->store().properties(), tags);
}

// --- folder

std::optional<Value> FolderProperties::Find(std::uint16_t id) {
  if (auto value = FindIdentity(identity(), id)) return value;
  if (id == Id(PR_FOLDER_TYPE)) {
    const bool root = folder_.nid() == vault::kRootFolderNid;
    return Value::Int(id, root ? FOLDER_ROOT : folder_.is_search_folder() ? FOLDER_SEARCH : FOLDER_GENERIC);
  }
  if (auto value = FindStored(folder_.properties(), id)) return value;
  switch (id) {
    case Id(PR_CONTENT_COUNT):
      return Value::Int(id, CountOrZero([&] { return folder_.message_count(); }));
    case Id(PR_ASSOC_CONTENT_COUNT):
      return Value::Int(id, CountOrZero([&] { return folder_.Associated().row_count(); }));
    case Id(PR_SUBFOLDERS):
      return Value::Bool(id, CountOrZero([&] { return folder_.subfolder_count(); }) != 0);
    default:
      return {};
  }
}

void FolderProperties::List(std::vector<vault::PropTag>& tags) {
  ListIdentity(identity(), tags);
  tags.insert(tags.end(), {PR_FOLDER_TYPE, PR_CONTENT_COUNT, PR_SUBFOLDERS});
  ListStored(folder_.properties(), tags);
}

// --- message

MessageProperties::MessageProperties(std::shared_ptr<StoreFile> file, vault::Message message)
    : file_(std::move(file)), message_(std::move(message)) {
  try {
    const auto page = message_.properties().Int(vault::prop::kMessageCodepage);
    if (page && *page > 0 && *page < 0x10000) code_page_ = static_cast<unsigned>(*page);
  } catch (const vault::Error&) {
    // Without its code page a message reads in the system's.
  }
}

std::optional<Value> MessageProperties::Find(std::uint16_t id) {
  if (auto value = FindIdentity(identity(), id)) return value;
  switch (id) {
    case Id(PR_SUBJECT):
    case Id(PR_NORMALIZED_SUBJECT):
    case Id(PR_SUBJECT_PREFIX): {
      const auto stored = Stored(Id(PR_SUBJECT));
      return stored ? SubjectPart(*stored, code_page_, id) : std::nullopt;
    }
    case Id(PR_BODY):
      return Body();
    case Id(PR_DISPLAY_TO):
    case Id(PR_DISPLAY_CC):
    case Id(PR_DISPLAY_BCC):
      return RecipientNames(id);
    case Id(PR_HASATTACH): {
      const auto flags = message_.properties().Int(vault::prop::kMessageFlags);
      return Value::Bool(id, flags ? (*flags & MSGFLAG_HASATTACH) != 0
                                   : CountOrZero([&] { return message_.AttachmentNids().size(); }) != 0);
    }
    default:
      break;
  }
  if (auto value = Stored(id)) return value;
  if (id == Id(PR_MESSAGE_SIZE)) return Size();
  if (id == Id(PR_SEARCH_KEY) && !message_.depth()) return EntryIdValue(*file_, id, message_.nid());
  return {};
}

void MessageProperties::List(std::vector<vault::PropTag>& tags) {
  ListIdentity(identity(), tags);
  tags.insert(tags.end(), {PR_DISPLAY_TO_W, PR_DISPLAY_CC_W, PR_DISPLAY_BCC_W, PR_HASATTACH, PR_MESSAGE_SIZE});
  const std::size_t first_stored = tags.size();
  ListStored(message_.properties(), tags);
  const auto has = [&](ULONG tag) {
    return std::any_of(tags.begin() + static_cast<std::ptrdiff_t>(first_stored), tags.end(),
                       [tag](vault::PropTag stored) { return vault::IdOf(stored) == Id(tag); });
  };
  if (has(PR_SUBJECT_W)) tags.insert(tags.end(), {PR_NORMALIZED_SUBJECT_W, PR_SUBJECT_PREFIX_W});
  if (has(PR_HTML) || has(PR_RTF_COMPRESSED)) tags.push_back(PR_BODY_W);
}

std::optional<Value> MessageProperties::Body() {
  auto stored = Stored(Id(PR_BODY));
  if (stored && stored->size()) return stored;
  const std::scoped_lock lock(body_lock_);
  if (!body_made_) {
    body_ = MakeBody();
    body_made_ = true;
  }
  if (!body_) return stored;
  return Value::Shared(MakeTag(Id(PR_BODY), PropType::kUnicode), body_);
}

// Only the native body is stored; the plain one is made from it.
std::shared_ptr<const std::u16string> MessageProperties::MakeBody() {
  constexpr std::uint64_t kLargestBody = std::uint64_t{256} << 20;
  const auto& pages = PlatformCodePages();
  if (const auto html = Stored(Id(PR_HTML)); html && html->size()) {
    const auto page = message_.properties().Int(vault::prop::kInternetCodepage);
    const bool wide = html->type() == PropType::kUnicode;
    const auto bytes = html->Read(kLargestBody);
    return std::make_shared<const std::u16string>(vault::text::TextOfHtml(bytes,
                                                                          wide   ? vault::text::kCodePageUtf16Le
                                                                          : page ? static_cast<unsigned>(*page)
                                                                                 : 0,
                                                                          pages));
  }
  if (const auto rtf = Stored(Id(PR_RTF_COMPRESSED)); rtf && rtf->size()) {
    if (auto text = vault::text::TextOfCompressedRtf(rtf->Read(kLargestBody), pages)) {
      return std::make_shared<const std::u16string>(std::move(*text));
    }
  }
  return nullptr;
}

// PR_DISPLAY_TO and its like exist on every message, if only as empty strings.
Value MessageProperties::RecipientNames(std::uint16_t id) {
  if (auto stored = Stored(id)) return std::move(*stored);
  const std::int64_t wanted = id == Id(PR_DISPLAY_TO) ? MAPI_TO : id == Id(PR_DISPLAY_CC) ? MAPI_CC : MAPI_BCC;
  std::u16string names;
  try {
    const auto table = std::make_shared<const vault::Table>(message_.Recipients());
    std::uint32_t number = 0;
    for (auto cursor = table->Walk(); cursor.Next(); ++number) {
      if (cursor.error()) continue;
      RecipientProperties recipient(table, cursor.row(), number, code_page_);
      const auto type = cursor.row().Find(Id(PR_RECIPIENT_TYPE));
      if (!type || (type->AsInt64() & 0xF) != wanted) continue;
      if (!names.empty()) names += u"; ";
      names += StringOf(recipient.Find(Id(PR_DISPLAY_NAME)), code_page_);
    }
  } catch (const vault::Error&) {
    // The names as far as they could be read.
  }
  return Value::Text(id, names);
}

Value MessageProperties::Size() {
  std::uint64_t size = 0;
  for (auto cursor = message_.properties().Walk(); cursor.Next();) {
    if (cursor.error()) continue;
    const vault::PropertyValue& value = cursor.value();
    size += value.is_long() ? message_.properties().Open(value).size() : value.bytes().size();
  }
  return Value::Int(Id(PR_MESSAGE_SIZE), static_cast<std::int32_t>(std::min<std::uint64_t>(size, MAXLONG)));
}

// --- attachment

std::optional<Value> AttachmentProperties::Find(std::uint16_t id) {
  switch (id) {
    case Id(PR_RECORD_KEY):
    case Id(PR_INSTANCE_KEY):
      return NidValue(id, attachment_.nid());
    case Id(PR_ATTACH_NUM):
      return Value::Int(id, static_cast<std::int32_t>(attachment_.nid()));
    case Id(PR_ENTRYID):
    case Id(PR_PARENT_ENTRYID):
      return {};
    default:
      break;
  }
  if (auto value = FindIdentity({*file_, 0, 0, MAPI_ATTACH}, id)) return value;
  if (auto value = Stored(id); value && (value->size() || id == Id(PR_ATTACH_DATA_BIN))) return value;
  switch (id) {
    case Id(PR_DISPLAY_NAME): {
      const auto name = Name(true);
      return name ? std::optional(Value::Text(id, *name)) : std::nullopt;
    }
    case Id(PR_ATTACH_EXTENSION): {
      const std::u16string name = Name(false).value_or(u"");
      const std::size_t dot = name.rfind(u'.');
      if (dot == std::u16string::npos || dot + 1 == name.size()) return {};
      return Value::Text(id, std::u16string_view(name).substr(dot));
    }
    case Id(PR_LAST_MODIFICATION_TIME):
    case Id(PR_CREATION_TIME):
      return Time(id);
    case Id(PR_ATTACH_SIZE): {
      const auto data = attachment_.Data();
      return Value::Int(id, data ? static_cast<std::int32_t>(std::min<std::uint64_t>(data->size(), MAXLONG)) : 0);
    }
    default:
      return {};
  }
}

void AttachmentProperties::List(std::vector<vault::PropTag>& tags) {
  tags.insert(tags.end(), {PR_RECORD_KEY, PR_ATTACH_NUM});
  for (const ULONG tag : {PR_DISPLAY_NAME_W, PR_ATTACH_EXTENSION_W}) {
    if (Find(Id(tag))) tags.push_back(tag);
  }
  ListIdentity({*file_, 0, 0, MAPI_ATTACH}, tags);
  ListStored(attachment_.properties(), tags);
}

// An attachment without times of its own is as old as its message; callers pass over those that have none.
std::optional<Value> AttachmentProperties::Time(std::uint16_t id) {
  for (const ULONG tag :
       {PR_LAST_MODIFICATION_TIME, PR_CREATION_TIME, PR_MESSAGE_DELIVERY_TIME, PR_CLIENT_SUBMIT_TIME}) {
    if (auto time = message_->Find(Id(tag)); time && time->type() == PropType::kTime) {
      time->tag_ = MakeTag(id, PropType::kTime);
      return time;
    }
  }
  return {};
}

// The file's name, long before short; to be displayed also an embedded message's subject.
std::optional<std::u16string> AttachmentProperties::Name(bool display) {
  for (const ULONG tag : {PR_ATTACH_LONG_FILENAME, PR_ATTACH_FILENAME}) {
    if (auto name = StringOf(Stored(Id(tag)), CodePage()); !name.empty()) return name;
  }
  if (!display || attachment_.method() != vault::AttachMethod::kEmbedded) return {};
  if (auto subject = attachment_.OpenEmbedded().subject(); !subject.empty()) return subject;
  return {};
}

// --- recipient

std::optional<Value> RecipientProperties::Find(std::uint16_t id) {
  if (auto cell = FindCell(*table_, row_, id)) return cell;
  switch (id) {
    case Id(PR_ROWID):
      return Value::Int(id, static_cast<std::int32_t>(number_));
    case Id(PR_INSTANCE_KEY):
      return NidValue(id, row_.id());
    case Id(PR_OBJECT_TYPE):
      return Value::Int(id, MAPI_MAILUSER);
    case Id(PR_DISPLAY_NAME): {
      auto address = FindCell(*table_, row_, Id(PR_EMAIL_ADDRESS));
      if (address) address->tag_ = MakeTag(id, address->type());
      return address;
    }
    case Id(PR_SMTP_ADDRESS_W): {
      auto address = FindCell(*table_, row_, Id(PR_EMAIL_ADDRESS));
      const std::u16string type = StringOf(FindCell(*table_, row_, Id(PR_ADDRTYPE)), code_page_);
      if (_wcsicmp(AsWide(type).c_str(), L"SMTP") || !address) return {};
      address->tag_ = MakeTag(id, address->type());
      return address;
    }
    default:
      return {};
  }
}

void RecipientProperties::List(std::vector<vault::PropTag>& tags) {
  for (const vault::Table::Column& column : table_->columns()) tags.push_back(column.tag);
  tags.insert(tags.end(), {PR_ROWID, PR_OBJECT_TYPE, PR_SMTP_ADDRESS_W});
}

}  // namespace provider
