#include "tests/support/store_walk.h"

#include "tests/support/sha256.h"

namespace test {
namespace {

constexpr std::size_t kMaxErrors = 100;
struct Stopped {};

class Walker {
 public:
  explicit Walker(const std::function<bool()>& go_on) : go_on_(go_on) {}

  void Store(const vault::Store& store) {
    Guard([&] { Properties(store.properties()); });
    for (auto cursor = store.Nodes(); cursor.Next();) {
      if (cursor.error()) {
        Report(*cursor.error());
        continue;
      }
      const vault::Nid nid = cursor.node().nid;
      switch (vault::TypeOf(nid)) {
        case vault::NidType::kFolder:
        case vault::NidType::kSearchFolder:
          Guard([&] { Folder(store.OpenFolder(nid)); });
          break;
        case vault::NidType::kMessage:
        case vault::NidType::kAssociatedMessage:
          Guard([&] { Message(store.OpenMessage(nid)); });
          break;
        default:
          break;
      }
    }
    for (const auto id : store.names().Ids()) {
      const auto name = store.names().NameOf(id);
      if (const auto* text = std::get_if<std::u16string_view>(&name->id)) result.bytes += text->size();
    }
  }

  void Message(const vault::Message& message) {
    ++result.messages;
    Properties(message.properties());
    Guard([&] { result.recipients += Rows(message.Recipients()).size(); });
    Guard([&] { Rows(message.Attachments()); });
    std::vector<vault::Nid> nids;
    Guard([&] { nids = message.AttachmentNids(); });
    for (const vault::Nid nid : nids) {
      Guard([&] {
        const vault::Attachment attachment = message.OpenAttachment(nid);
        ++result.attachments;
        Properties(attachment.properties());
        if (attachment.method() == vault::AttachMethod::kEmbedded) {
          Message(attachment.OpenEmbedded());
        } else if (const auto data = attachment.Data()) {
          result.bytes += data->size();
        }
      });
    }
  }

  Walked result;
  Sha256 sum;

 private:
  void Report(const vault::Error& error) {
    if (result.errors.size() < kMaxErrors) result.errors.push_back(error.what());
  }

  template <typename Body>
  void Guard(Body body) {
    if (!go_on_()) throw Stopped();
    try {
      body();
    } catch (const vault::Error& error) {
      Report(error);
    }
  }

  template <typename Owner>
  void Value(const Owner& owner, const vault::PropertyValue& value) {
    ++result.values;
    const vault::PropTag tag = value.tag();
    sum.Add({reinterpret_cast<const std::uint8_t*>(&tag), sizeof tag});
    auto reader = owner.Open(value);
    for (std::uint64_t at = 0; at < reader.size();) {
      if (!go_on_()) throw Stopped();
      const auto piece = reader.Piece(at);
      if (piece.empty()) throw std::logic_error("a reader gave no bytes before its end");
      sum.Add(piece);
      at += piece.size();
      result.bytes += piece.size();
    }
    if (vault::IsMulti(value.type()) && !value.is_long()) {
      const vault::MultiValue elements(value.type(), value.bytes());
      for (std::size_t i = 0; i < elements.size(); ++i) result.bytes += elements[i].size();
    }
  }

  void Properties(const vault::PropertySet& set) {
    for (auto cursor = set.Walk(); cursor.Next();) {
      if (cursor.error()) {
        Report(*cursor.error());
      } else {
        Guard([&] { Value(set, cursor.value()); });
      }
    }
  }

  std::vector<vault::Nid> Rows(const vault::Table& table) {
    std::vector<vault::Nid> ids;
    for (auto cursor = table.Walk(); cursor.Next();) {
      if (cursor.error()) {
        Report(*cursor.error());
        continue;
      }
      if (!go_on_()) throw Stopped();
      ids.push_back(cursor.row().id());
      for (std::size_t i = 0; i < table.columns().size(); ++i) {
        Guard([&] {
          if (const auto cell = cursor.row().Cell(i)) Value(table, *cell);
        });
      }
      Guard([&] { table.FindRow(ids.back()); });
    }
    return ids;
  }

  void Folder(const vault::Folder& folder) {
    ++result.folders;
    Properties(folder.properties());
    Guard([&] { Rows(folder.Hierarchy()); });
    Guard([&] { Rows(folder.Contents()); });
    Guard([&] { Rows(folder.Associated()); });
  }

  const std::function<bool()>& go_on_;
};

}  // namespace

Walked WalkStore(const vault::Store& store, const std::function<bool()>& go_on) {
  Walker walker(go_on);
  try {
    walker.Store(store);
    walker.result.digest = walker.sum.Finish();
  } catch (const Stopped&) {
    // The caller's time is over.
  }
  return walker.result;
}

std::string DigestOfMessage(const vault::Store& store, vault::Nid nid) {
  const std::function<bool()> always = [] { return true; };
  Walker walker(always);
  walker.Message(store.OpenMessage(nid));
  return walker.sum.Finish();
}

}  // namespace test
