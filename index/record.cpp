#include "index/record.h"

#include <algorithm>
#include <array>

#include "index/text.h"

namespace hoardex {
namespace {

using nlohmann::json;

constexpr std::string_view kMessageSuffix = ".zkm", kVaultSuffix = ".db", kRootMarker = "/default/";

// Properties that say what an item is rather than what it says, or that repeat others; the rest of the text is
// searchable.
constexpr std::array<std::string_view, 44> kNoDetails{
    "System.Author",
    "System.FileExtension",
    "System.FileName",
    "System.ItemAuthors",
    "System.ItemDate",
    "System.ItemFolderNameDisplay",
    "System.ItemFolderPathDisplay",
    "System.ItemFolderPathDisplayNarrow",
    "System.ItemName",
    "System.ItemNameDisplay",
    "System.ItemPathDisplay",
    "System.ItemPathDisplayNarrow",
    "System.ItemType",
    "System.ItemTypeText",
    "System.ItemUrl",
    "System.Kind",
    "System.KindText",
    "System.MIMEType",
    "System.Message.AttachmentNames",
    "System.Message.BccAddress",
    "System.Message.BccName",
    "System.Message.CcAddress",
    "System.Message.CcName",
    "System.Message.ConversationID",
    "System.Message.ConversationIndex",
    "System.Message.FromAddress",
    "System.Message.FromName",
    "System.Message.MessageClass",
    "System.Message.SenderAddress",
    "System.Message.SenderName",
    "System.Message.Store",
    "System.Message.ToAddress",
    "System.Message.ToName",
    "System.Search.AutoSummary",
    "System.Search.Contents",
    "System.Search.UrlToIndex",
    "System.Search.UrlToIndexWithModificationTime",
    "System.Subject",
    "System.Calendar.OptionalAttendeeAddresses",
    "System.Calendar.OptionalAttendeeNames",
    "System.Calendar.OrganizerAddress",
    "System.Calendar.OrganizerName",
    "System.Calendar.RequiredAttendeeAddresses",
    "System.Calendar.RequiredAttendeeNames",
};

// The first that is present is the title, the date and so on of an item.
constexpr std::array<std::string_view, 4> kTitles{"System.Subject", "System.Title", "System.ItemName",
                                                  "System.ItemNameDisplay"};
constexpr std::array<std::string_view, 3> kFileTitles{"System.FileName", "System.ItemName", "System.Title"};
constexpr std::array<std::string_view, 6> kDates{"System.Message.DateReceived", "System.ItemDate",
                                                 "System.Message.DateSent",     "System.StartDate",
                                                 "System.DateCreated",          "System.DateModified"};
constexpr std::array<std::string_view, 7> kSenders{"System.Message.FromName",         "System.Message.FromAddress",
                                                   "System.Message.SenderName",       "System.Message.SenderAddress",
                                                   "System.Calendar.OrganizerName",   "System.Author",
                                                   "System.Calendar.OrganizerAddress"};
constexpr std::array<std::string_view, 10> kRecipients{"System.Message.ToName",
                                                       "System.Message.ToAddress",
                                                       "System.Message.CcName",
                                                       "System.Message.CcAddress",
                                                       "System.Message.BccName",
                                                       "System.Message.BccAddress",
                                                       "System.Calendar.RequiredAttendeeNames",
                                                       "System.Calendar.RequiredAttendeeAddresses",
                                                       "System.Calendar.OptionalAttendeeNames",
                                                       "System.Calendar.OptionalAttendeeAddresses"};

void AppendValue(const json& value, std::string* out) {
  const auto separate = [out] {
    if (!out->empty()) *out += "; ";
  };
  if (value.is_array()) {
    for (const json& element : value) AppendValue(element, out);
  } else if (value.is_string()) {
    if (value.get_ref<const std::string&>().empty()) return;
    separate();
    *out += value.get_ref<const std::string&>();
  } else if (!value.is_null() && !value.is_object()) {
    separate();
    *out += value.dump();
  }
}

template <size_t N>
std::string First(const Record& record, const std::array<std::string_view, N>& properties) {
  for (std::string_view property : properties) {
    if (std::string text = record.Text(property); !text.empty()) return text;
  }
  return {};
}

template <size_t N>
std::string Gather(const Record& record, const std::array<std::string_view, N>& properties) {
  std::string out;
  for (std::string_view property : properties) record.AddText(property, &out);
  return out;
}

bool IsDate(std::string_view text) {
  return text.size() >= 10 && text[4] == '-' && text[7] == '-' &&
         std::all_of(text.begin(), text.begin() + 4, [](char c) { return c >= '0' && c <= '9'; });
}

std::string Details(const Record& record) {
  std::string out;
  for (const auto& [name, value] : record.properties.items()) {
    if (!value.is_string() && !value.is_array()) continue;
    if (std::find(kNoDetails.begin(), kNoDetails.end(), name) != kNoDetails.end()) continue;
    const std::string text = record.Text(name);
    if (!IsDate(text)) record.AddText(name, &out);
  }
  return out;
}

// Mail items answer "email;communication", and so do attachments of a type without a kind of its own; there the word
// would make every attachment a mail.
std::string Kinds(const Record& record, ItemKind kind) {
  std::string all = AsciiLower(record.Text("System.Kind"));
  std::string out = kind == ItemKind::kAttachment ? ";attachment;" : ";";
  for (size_t at = 0; at < all.size();) {
    const size_t end = std::min(all.find(';', at), all.size());
    const std::string one = OneLine(std::string_view(all).substr(at, end - at));
    at = end + 1;
    if (one.empty() || (kind == ItemKind::kAttachment && (one == "email" || one == "communication"))) continue;
    out += one + ";";
  }
  return out;
}

// A container tells its own name and the path of its parent, which begins with "/Tessary/" and the vault's name.
std::string ContainerPath(const Record& record, ItemKind kind, const Parent& parent) {
  if (kind == ItemKind::kVault) return {};
  const std::string name = OneLine(record.Text("System.ItemName"));
  const std::string above = OneLine(record.Text("System.ItemPathDisplay"));
  const std::string vault = "/Tessary/" + VaultOfUrl(record.url);
  if (above.rfind(vault, 0) == 0 && (above.size() == vault.size() || above[vault.size()] == '/')) {
    const std::string below = above.substr(std::min(above.size(), vault.size() + 1));
    return below.empty() ? name : below + "/" + name;
  }
  return parent.path.empty() ? name : parent.path + "/" + name;
}

// A file's name is the same in upper and lower case.
bool IsVaultFile(std::string_view file) {
  return file.size() >= kVaultSuffix.size() &&
         AsciiLower(file.substr(file.size() - kVaultSuffix.size())) == kVaultSuffix;
}

}  // namespace

bool IsContainer(ItemKind kind) {
  return kind == ItemKind::kRoot || kind == ItemKind::kVault || kind == ItemKind::kFolder;
}

std::string_view KindName(ItemKind kind) {
  constexpr std::string_view kNames[] = {"unknown", "root", "vault", "folder", "message", "attachment"};
  return kNames[static_cast<int>(kind)];
}

ItemKind ChildKind(ItemKind parent, std::string_view url) {
  switch (parent) {
    case ItemKind::kRoot:
      return ItemKind::kVault;
    case ItemKind::kVault:
    case ItemKind::kFolder:
      return url.ends_with(kMessageSuffix) ? ItemKind::kMessage : ItemKind::kFolder;
    case ItemKind::kMessage:
    case ItemKind::kAttachment:
      return ItemKind::kAttachment;
    case ItemKind::kUnknown:
      break;
  }
  return ItemKind::kUnknown;
}

ItemKind KindOfUrl(std::string_view url) {
  const size_t marker = url.find(kRootMarker);
  if (marker == std::string_view::npos) return ItemKind::kUnknown;
  std::string_view rest = url.substr(marker + kRootMarker.size());
  if (rest.empty()) return ItemKind::kRoot;
  const size_t end = std::min(rest.find('/'), rest.size());
  if (!IsVaultFile(rest.substr(0, end))) return ItemKind::kUnknown;
  rest.remove_prefix(std::min(end + 1, rest.size()));
  if (rest.empty()) return ItemKind::kVault;
  const size_t message = rest.find(kMessageSuffix);
  if (message == std::string_view::npos) return ItemKind::kFolder;
  return message + kMessageSuffix.size() == rest.size() ? ItemKind::kMessage : ItemKind::kAttachment;
}

std::string VaultOfUrl(std::string_view url) {
  const size_t marker = url.find(kRootMarker);
  if (marker == std::string_view::npos) return {};
  std::string_view file = url.substr(marker + kRootMarker.size());
  file = file.substr(0, file.find('/'));
  if (!IsVaultFile(file)) return {};
  file.remove_suffix(kVaultSuffix.size());
  const size_t slash = file.rfind('\\');
  return std::string(slash == std::string_view::npos ? file : file.substr(slash + 1));
}

std::string ItemError::Describe() const {
  // The one code that the module has for a vault without a session; it has nothing to do with memory.
  const bool no_vault = step == "CreateAccessor" && name == "E_OUTOFMEMORY";
  std::string out = no_vault ? "the vault or item cannot be opened, " + step : step;
  if (!name.empty()) out += (out.empty() ? "" : ": ") + name;
  if (!code.empty()) out += name.empty() && !out.empty() ? ": " + code : name.empty() ? code : " (" + code + ")";
  return out.empty() ? "failed without a reason" : out;
}

Record Record::FromJson(json json) {
  Record record;
  const auto take = [&json](const char* key, std::string* out) {
    if (auto it = json.find(key); it != json.end() && it->is_string()) *out = std::move(it->get_ref<std::string&>());
  };
  take("url", &record.url);
  take("modified", &record.modified);
  take("text", &record.text);
  if (auto it = json.find("size"); it != json.end() && it->is_number()) record.size = it->get<int64_t>();
  if (auto it = json.find("properties"); it != json.end() && it->is_object()) record.properties = std::move(*it);
  if (auto it = json.find("links"); it != json.end() && it->is_array()) {
    for (const auto& link : *it) {
      if (!link.is_object() || !link.contains("url") || !link["url"].is_string()) continue;
      const bool dated = link.contains("modified") && link["modified"].is_string();
      record.links.push_back({link["url"].get<std::string>(), dated ? link["modified"].get<std::string>() : ""});
    }
  }
  if (auto it = json.find("error"); it != json.end() && it->is_object()) {
    const auto field = [&](const char* key) {
      const auto value = it->find(key);
      return value != it->end() && value->is_string() ? OneLine(value->get<std::string>()) : std::string();
    };
    record.error = ItemError{field("step"), field("code"), field("name")};
  } else if (record.properties.empty() && record.text.empty() && record.links.empty()) {
    // A filter that cannot open its item ends without a chunk and without an error.
    record.error = ItemError{"GetChunk", "", "no chunk at all, the item cannot be opened"};
  }
  return record;
}

std::string Record::Text(std::string_view property) const {
  std::string out;
  if (const auto it = properties.find(std::string(property)); it != properties.end()) AppendValue(*it, &out);
  return out;
}

void Record::AddText(std::string_view property, std::string* out) const {
  const std::string text = Text(property);
  if (text.empty() || out->find(text) != std::string::npos) return;
  if (!out->empty()) *out += "; ";
  *out += text;
}

Document MakeDocument(const Record& record, ItemKind kind, const Parent& parent) {
  Document document;
  document.kinds = Kinds(record, kind);
  document.date = First(record, kDates);
  if (!IsDate(document.date)) document.date.clear();
  if (IsContainer(kind)) {
    document.title = OneLine(record.Text("System.ItemName"));
    document.path = ContainerPath(record, kind, parent);
    return document;
  }
  document.path = parent.path;
  document.sender = OneLine(Gather(record, kSenders));
  document.body = record.text;
  document.details = OneLine(Details(record));
  if (kind == ItemKind::kAttachment) {
    document.title = OneLine(First(record, kFileTitles));
    // The mail that carried it says who sent it, to whom and when.
    if (!parent.sender.empty()) document.sender = parent.sender;
    document.recipients = parent.recipients;
    if (!parent.date.empty()) document.date = parent.date;
    return document;
  }
  document.title = OneLine(First(record, kTitles));
  document.recipients = OneLine(Gather(record, kRecipients));
  document.attachments = OneLine(record.Text("System.Message.AttachmentNames"));
  const auto flag = record.properties.find("System.Message.HasAttachments");
  document.has_attachments = !document.attachments.empty() || !record.links.empty() ||
                             (flag != record.properties.end() && flag->is_boolean() && flag->get<bool>());
  return document;
}

}  // namespace hoardex
