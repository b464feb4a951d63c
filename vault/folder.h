// A folder of a store ([MS-PST] 2.4.4).
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "vault/node.h"
#include "vault/property_set.h"
#include "vault/table.h"

namespace vault {

// A cheap handle; see store.h for threads and lifetime.
class Folder {
 public:
  // For the store: opens the folder's properties. Throws Error.
  Folder(std::shared_ptr<const Database> db, const NodeInfo& node);

  Nid nid() const { return node_.nid; }
  // The parent folder; the root folder is its own parent.
  Nid parent() const { return node_.parent; }
  bool is_search_folder() const { return TypeOf(node_.nid) == NidType::kSearchFolder; }
  const PropertySet& properties() const { return properties_; }
  // PR_DISPLAY_NAME and PR_CONTAINER_CLASS; empty when missing.
  std::u16string name() const;
  std::u16string container_class() const;

  // Sub-folders, messages, hidden (associated) messages: a row's id is the node. Read when asked for; a folder that has
  // no such table (or a search folder whose results are kept in another form) has an empty one. Throw Error when the
  // table is damaged beyond its rows.
  Table Hierarchy() const;
  Table Contents() const;
  Table Associated() const;

  // Rows of the tables above. Throw Error as they do.
  std::uint32_t subfolder_count() const { return Hierarchy().row_count(); }
  std::uint32_t message_count() const { return Contents().row_count(); }

 private:
  Table OpenTable(NidType type) const;

  std::shared_ptr<const Database> db_;
  NodeInfo node_;
  PropertySet properties_;
};

}  // namespace vault
