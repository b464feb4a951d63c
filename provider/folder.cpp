#include <algorithm>
#include <map>

#include "provider/items.h"
#include "provider/objects.h"
#include "provider/prop_object.h"
#include "provider/table.h"

namespace provider {
namespace {

constexpr std::uint16_t kDepthId = PROP_ID(PR_DEPTH);

// A row of a folder's table: its cells, and behind them the object itself.
class ItemRow : public PropertyBag {
 public:
  ItemRow(std::shared_ptr<StoreFile> file, std::shared_ptr<const vault::Table> table,
          std::optional<vault::Table::Row> row, const Identity& identity, std::int32_t depth)
      : file_(std::move(file)), table_(std::move(table)), row_(row), identity_(identity), depth_(depth) {}

  std::optional<Value> Find(std::uint16_t id) override {
    if (auto value = FindIdentity(identity_, id)) return value;
    if (id == kDepthId && identity_.object_type == MAPI_FOLDER) return Value::Int(id, depth_);
    const bool part_of_subject = id == PROP_ID(PR_NORMALIZED_SUBJECT) || id == PROP_ID(PR_SUBJECT_PREFIX);
    if (row_ && !part_of_subject) {
      if (auto cell = FindCell(*table_, *row_, id)) {
        if (id == PROP_ID(PR_SUBJECT)) return SubjectPart(*cell, CodePageOf(*cell), id);
        return cell;
      }
    }
    return Object().Find(id);
  }
  void List(std::vector<vault::PropTag>& tags) override { Object().List(tags); }
  // Strings of 8-bit characters come only from old stores, whose messages say in which code page they are.
  unsigned CodePage() override {
    try {
      return Object().CodePage();
    } catch (const vault::Error&) {
      return 0;
    }
  }

 private:
  unsigned CodePageOf(const Value& cell) { return cell.type() == vault::PropType::kString8 ? CodePage() : 0; }

  PropertyBag& Object() {
    if (object_) return *object_;
    const vault::Store& store = file_->store();
    if (identity_.object_type == MAPI_FOLDER) {
      object_ = std::make_unique<FolderProperties>(file_, store.OpenFolder(identity_.nid));
    } else {
      object_ = std::make_unique<MessageProperties>(file_, store.OpenMessage(identity_.nid));
    }
    return *object_;
  }

  std::shared_ptr<StoreFile> file_;
  std::shared_ptr<const vault::Table> table_;
  std::optional<vault::Table::Row> row_;
  Identity identity_;
  std::int32_t depth_;
  std::unique_ptr<PropertyBag> object_;
};

// Rows as the folder's own table has them.
class StoredRows : public RowSource {
 public:
  StoredRows(std::shared_ptr<StoreFile> file, vault::Table table, vault::Nid folder, ULONG object_type)
      : file_(std::move(file)),
        table_(std::make_shared<const vault::Table>(std::move(table))),
        folder_(folder),
        object_type_(object_type) {}

  std::uint32_t Count() const override { return table_->row_count(); }
  std::unique_ptr<PropertyBag> Row(std::uint32_t number) const override {
    try {
      const vault::Table::Row row = table_->At(number);
      return std::make_unique<ItemRow>(file_, table_, row, Identity{*file_, row.id(), folder_, object_type_}, 1);
    } catch (const vault::Error& error) {
      return std::make_unique<DamagedProperties>(error);
    }
  }
  std::vector<vault::PropTag> DefaultColumns() const override {
    std::vector<vault::PropTag> tags = {PR_ENTRYID, PR_INSTANCE_KEY, PR_OBJECT_TYPE, PR_PARENT_ENTRYID};
    for (const vault::Table::Column& column : table_->columns()) tags.push_back(column.tag);
    return tags;
  }

 private:
  std::shared_ptr<StoreFile> file_;
  std::shared_ptr<const vault::Table> table_;
  vault::Nid folder_;
  ULONG object_type_;
};

// Rows for nodes that were found in another way than by one table.
class NodeRows : public RowSource {
 public:
  struct Node {
    vault::Nid nid, parent;
    std::int32_t depth;
  };
  NodeRows(std::shared_ptr<StoreFile> file, std::vector<Node> nodes, ULONG object_type)
      : file_(std::move(file)), nodes_(std::move(nodes)), object_type_(object_type) {}

  std::uint32_t Count() const override { return static_cast<std::uint32_t>(nodes_.size()); }
  std::unique_ptr<PropertyBag> Row(std::uint32_t number) const override {
    const Node& node = nodes_[number];
    const Identity identity{*file_, node.nid, node.parent, object_type_};
    return std::make_unique<ItemRow>(file_, nullptr, std::nullopt, identity, node.depth);
  }
  std::vector<vault::PropTag> DefaultColumns() const override {
    if (object_type_ == MAPI_FOLDER) {
      return {PR_ENTRYID, PR_OBJECT_TYPE, PR_DEPTH, PR_DISPLAY_NAME_W, PR_CONTENT_COUNT, PR_SUBFOLDERS};
    }
    return {PR_ENTRYID,       PR_OBJECT_TYPE,           PR_SUBJECT_W, PR_MESSAGE_CLASS_W, PR_MESSAGE_SIZE,
            PR_MESSAGE_FLAGS, PR_LAST_MODIFICATION_TIME};
  }

 private:
  std::shared_ptr<StoreFile> file_;
  std::vector<Node> nodes_;
  ULONG object_type_;
};

// Where a folder's table is damaged, the node tree still knows whose children the items are.
std::vector<NodeRows::Node> Children(const vault::Store& store, vault::Nid folder,
                                     std::initializer_list<vault::NidType> types) {
  std::vector<NodeRows::Node> found;
  for (auto cursor = store.Nodes(); cursor.Next();) {
    if (cursor.error() || cursor.node().parent != folder || cursor.node().nid == folder) continue;
    for (const vault::NidType type : types)
      if (vault::TypeOf(cursor.node().nid) == type) found.push_back({cursor.node().nid, folder, 1});
  }
  return found;
}

class Folder : public PropObject<IMAPIFolder> {
 public:
  Folder(const std::shared_ptr<StoreFile>& file, std::shared_ptr<FolderProperties> properties)
      : PropObject(Kind::kFolder, file, properties), folder_(properties->folder()) {}

  STDMETHODIMP GetContentsTable(ULONG flags, LPMAPITABLE* table) override {
    return Guarded(
        "IMAPIContainer::GetContentsTable",
        [&] {
          Require(table != nullptr, MAPI_E_INVALID_PARAMETER);
          *table = MakeTable(flags & MAPI_ASSOCIATED ? Associated() : Contents(), flags).Detach();
        },
        table);
  }
  STDMETHODIMP GetHierarchyTable(ULONG flags, LPMAPITABLE* table) override {
    return Guarded(
        "IMAPIContainer::GetHierarchyTable",
        [&] {
          Require(table != nullptr, MAPI_E_INVALID_PARAMETER);
          *table = MakeTable(flags & CONVENIENT_DEPTH ? WholeHierarchy() : Hierarchy(), flags).Detach();
        },
        table);
  }
  STDMETHODIMP OpenEntry(ULONG size, LPENTRYID id, LPCIID iid, ULONG flags, ULONG* type, LPUNKNOWN* object) override {
    return Guarded(
        "IMAPIContainer::OpenEntry", [&] { provider::OpenEntry(file_, size, id, iid, flags, type, object); }, type,
        object);
  }
  STDMETHODIMP SetSearchCriteria(LPSRestriction, LPENTRYLIST, ULONG) override {
    return Answer("IMAPIContainer::SetSearchCriteria", MAPI_E_NO_ACCESS);
  }
  STDMETHODIMP GetSearchCriteria(ULONG, LPSRestriction*, LPENTRYLIST*, ULONG*) override {
    return Answer("IMAPIContainer::GetSearchCriteria", MAPI_E_NO_SUPPORT);
  }
  STDMETHODIMP CreateMessage(LPCIID, ULONG, LPMESSAGE* message) override {
    return Answer("IMAPIFolder::CreateMessage", MAPI_E_NO_ACCESS, message);
  }
  STDMETHODIMP CopyMessages(LPENTRYLIST, LPCIID, LPVOID, ULONG, LPMAPIPROGRESS, ULONG) override {
    return Answer("IMAPIFolder::CopyMessages", MAPI_E_NO_SUPPORT);
  }
  STDMETHODIMP DeleteMessages(LPENTRYLIST, ULONG, LPMAPIPROGRESS, ULONG) override {
    return Answer("IMAPIFolder::DeleteMessages", MAPI_E_NO_ACCESS);
  }
  STDMETHODIMP CreateFolder(ULONG, LPTSTR, LPTSTR, LPCIID, ULONG, LPMAPIFOLDER* folder) override {
    return Answer("IMAPIFolder::CreateFolder", MAPI_E_NO_ACCESS, folder);
  }
  STDMETHODIMP CopyFolder(ULONG, LPENTRYID, LPCIID, LPVOID, LPTSTR, ULONG, LPMAPIPROGRESS, ULONG) override {
    return Answer("IMAPIFolder::CopyFolder", MAPI_E_NO_SUPPORT);
  }
  STDMETHODIMP DeleteFolder(ULONG, LPENTRYID, ULONG, LPMAPIPROGRESS, ULONG) override {
    return Answer("IMAPIFolder::DeleteFolder", MAPI_E_NO_ACCESS);
  }
  STDMETHODIMP SetReadFlags(LPENTRYLIST, ULONG, LPMAPIPROGRESS, ULONG) override {
    return Answer("IMAPIFolder::SetReadFlags", MAPI_E_NO_ACCESS);
  }
  STDMETHODIMP GetMessageStatus(ULONG size, LPENTRYID id, ULONG, ULONG* status) override {
    return Guarded("IMAPIFolder::GetMessageStatus", [&] {
      Require(status != nullptr, MAPI_E_INVALID_PARAMETER);
      *status = 0;
      const auto row = folder_.Contents().FindRow(file_->NodeOf(size, id));
      Require(row.has_value(), MAPI_E_NOT_FOUND);
      const auto stored = row->Find(PROP_ID(PR_MSG_STATUS));
      if (stored) *status = static_cast<ULONG>(stored->AsInt32());
    });
  }
  STDMETHODIMP SetMessageStatus(ULONG, LPENTRYID, ULONG, ULONG, ULONG*) override {
    return Answer("IMAPIFolder::SetMessageStatus", MAPI_E_NO_ACCESS);
  }
  STDMETHODIMP SaveContentsSort(LPSSortOrderSet, ULONG) override {
    return Answer("IMAPIFolder::SaveContentsSort", MAPI_E_NO_ACCESS);
  }
  STDMETHODIMP EmptyFolder(ULONG, LPMAPIPROGRESS, ULONG) override {
    return Answer("IMAPIFolder::EmptyFolder", MAPI_E_NO_ACCESS);
  }

 protected:
  bool Implements(REFIID iid) const override {
    return iid == IID_IMAPIFolder || iid == IID_IMAPIContainer || PropObject::Implements(iid);
  }

 private:
  std::shared_ptr<const RowSource> Contents() const {
    try {
      return std::make_shared<StoredRows>(file_, folder_.Contents(), folder_.nid(), MAPI_MESSAGE);
    } catch (const vault::Error&) {
      return std::make_shared<NodeRows>(file_, Children(file_->store(), folder_.nid(), {vault::NidType::kMessage}),
                                        MAPI_MESSAGE);
    }
  }
  std::shared_ptr<const RowSource> Associated() const {
    return std::make_shared<StoredRows>(file_, folder_.Associated(), folder_.nid(), MAPI_MESSAGE);
  }
  std::shared_ptr<const RowSource> Hierarchy() const {
    try {
      return std::make_shared<StoredRows>(file_, folder_.Hierarchy(), folder_.nid(), MAPI_FOLDER);
    } catch (const vault::Error&) {
      return std::make_shared<NodeRows>(
          file_, Children(file_->store(), folder_.nid(), {vault::NidType::kFolder, vault::NidType::kSearchFolder}),
          MAPI_FOLDER);
    }
  }

  // All folders below, each after its parent; a folder that the file lists twice is shown once, which ends circles.
  std::shared_ptr<const RowSource> WholeHierarchy() const {
    std::vector<NodeRows::Node> found, pending = {{folder_.nid(), folder_.parent(), 0}};
    std::map<vault::Nid, bool> seen = {{folder_.nid(), true}};
    while (!pending.empty()) {
      const NodeRows::Node node = pending.back();
      pending.pop_back();
      if (node.depth) found.push_back(node);
      const std::size_t first = pending.size();
      try {
        const vault::Table table = file_->store().OpenFolder(node.nid).Hierarchy();
        for (auto cursor = table.Walk(); cursor.Next();) {
          if (cursor.error() || seen[cursor.row().id()]) continue;
          seen[cursor.row().id()] = true;
          pending.push_back({cursor.row().id(), node.nid, node.depth + 1});
        }
      } catch (const vault::Error&) {
        // A damaged folder is listed without what is below it.
      }
      std::reverse(pending.begin() + static_cast<std::ptrdiff_t>(first), pending.end());
    }
    return std::make_shared<NodeRows>(file_, std::move(found), MAPI_FOLDER);
  }

  const vault::Folder folder_;
};

}  // namespace

Ref<IMAPIFolder> MakeFolder(std::shared_ptr<StoreFile> file, vault::Nid nid) {
  auto properties = std::make_shared<FolderProperties>(file, file->store().OpenFolder(nid));
  return Ref<IMAPIFolder>(new Folder(file, std::move(properties)));
}

}  // namespace provider
