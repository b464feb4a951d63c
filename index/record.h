// One record of the protocol host, and what the index keeps of it.
#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace hoardex {

// Values are stored in the index; do not renumber.
enum class ItemKind : int { kUnknown = 0, kRoot = 1, kVault = 2, kFolder = 3, kMessage = 4, kAttachment = 5 };

bool IsContainer(ItemKind kind);
std::string_view KindName(ItemKind kind);

// The kind of an item that `parent` lists. It follows from the place alone: what a message lists is an attachment even
// when its display name looks like something else.
ItemKind ChildKind(ItemKind parent, std::string_view url);
// The kind of any item URL by its grammar.
ItemKind KindOfUrl(std::string_view url);
// "name" of ".../default/V:\Tessary\name.db/...", or empty.
std::string VaultOfUrl(std::string_view url);

struct Link {
  std::string url, modified;
};

struct ItemError {
  std::string step, code, name;
  std::string Describe() const;  // "BindToFilter: E_FAIL (0x80004005)"
};

struct Record {
  std::string url;
  std::optional<int64_t> size;
  std::string modified;
  nlohmann::json properties = nlohmann::json::object();
  std::string text;
  std::vector<Link> links;
  std::optional<ItemError> error;

  // Takes what is well-formed and leaves the rest; an item about which the host tells nothing at all gets an error.
  static Record FromJson(nlohmann::json json);

  // A property as one line: lists joined by "; ". Empty when absent.
  std::string Text(std::string_view property) const;
  // Names a text property and adds it to `out` unless it is already part of it.
  void AddText(std::string_view property, std::string* out) const;
};

// What is inherited from the item that lists this one.
struct Parent {
  ItemKind kind = ItemKind::kUnknown;
  std::string path;                       // folder path below the vault, "Inbox/Projects"
  std::string title, sender, recipients;  // of the message, for attachments
  std::string date;
};

// The searchable form of an item; the text columns are those of the full-text table.
struct Document {
  std::string title, sender, recipients, path, attachments, body, details;
  std::string kinds;  // ";email;communication;"
  std::string date;   // ISO 8601, or empty
  bool has_attachments = false;
};

Document MakeDocument(const Record& record, ItemKind kind, const Parent& parent);

}  // namespace hoardex
