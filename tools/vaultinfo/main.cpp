// vaultinfo FILE: says in one JSON object whether a store can be read, and what is in it.
//
// Exit status: 0 opened, 1 refused, 2 usage.
#include <cstdio>
#include <deque>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <string>
#include <unordered_set>

#include "vault/store.h"

namespace {

using nlohmann::json;

constexpr std::size_t kMaxTopMessages = 50, kMaxErrors = 20;

std::string Hex(std::span<const std::uint8_t> bytes) {
  constexpr char kDigits[] = "0123456789abcdef";
  std::string hex;
  for (const std::uint8_t b : bytes) (hex += kDigits[b >> 4]) += kDigits[b & 15];
  return hex;
}

class Survey {
 public:
  explicit Survey(const vault::Store& store) : store_(store) {}

  void Run(json& out) {
    WalkFolders();
    CountOutside();
    out["folders"] = folders_;
    out["messages"] = messages_;
    out["attachments"] = attachments_;
    out["top_message_count"] = top_messages_;
    out["top_messages"] = top_;
    out["outside"] = outside_;
    out["errors"] = errors_;
  }

 private:
  void Report(const vault::Error& error) {
    if (errors_.size() < kMaxErrors) errors_.push_back(error.what());
  }

  // Calls `use` with the id of each row that can be read.
  template <typename Use>
  void EachRow(const vault::Table& table, Use use) {
    for (auto cursor = table.Walk(); cursor.Next();) {
      if (cursor.error()) {
        Report(*cursor.error());
      } else {
        use(cursor.row().id());
      }
    }
  }

  // Breadth first from the top of the mail subtree, ordinary folders only, each once.
  void WalkFolders() {
    std::deque<vault::Nid> waiting{store_.subtree()};
    seen_.insert(store_.subtree());
    while (!waiting.empty()) {
      const vault::Nid nid = waiting.front();
      waiting.pop_front();
      try {
        WalkFolder(store_.OpenFolder(nid), waiting);
      } catch (const vault::Error& error) {
        Report(error);
      }
    }
  }

  void WalkFolder(const vault::Folder& folder, std::deque<vault::Nid>& waiting) {
    const bool top = folder.nid() == store_.subtree();
    if (!top) ++folders_;
    try {
      EachRow(folder.Hierarchy(), [&](vault::Nid child) {
        if (vault::TypeOf(child) == vault::NidType::kFolder && seen_.insert(child).second) waiting.push_back(child);
      });
    } catch (const vault::Error& error) {
      Report(error);
    }
    EachRow(folder.Contents(), [&](vault::Nid message) { top ? TakeTop(message) : Take(message); });
  }

  void TakeTop(vault::Nid nid) {
    ++top_messages_;
    if (top_.size() >= kMaxTopMessages) return;
    std::string subject;
    try {
      subject = vault::Utf8FromUtf16(store_.OpenMessage(nid).subject());
    } catch (const vault::Error& error) {
      Report(error);
    }
    top_.push_back({{"nid", nid}, {"subject", subject}});
  }

  void Take(vault::Nid nid) {
    ++messages_;
    try {
      attachments_ += store_.OpenMessage(nid).AttachmentNids().size();
    } catch (const vault::Error& error) {
      Report(error);
    }
  }

  // Messages whose folder was not met above.
  void CountOutside() {
    for (auto cursor = store_.Nodes(); cursor.Next();) {
      if (cursor.error()) {
        Report(*cursor.error());
      } else if (vault::TypeOf(cursor.node().nid) == vault::NidType::kMessage && !seen_.count(cursor.node().parent)) {
        // A message without a folder is a template or a left-over of a deletion.
        if (cursor.node().parent != 0) ++outside_;
      }
    }
  }

  const vault::Store& store_;
  std::unordered_set<vault::Nid> seen_;
  std::uint64_t folders_ = 0, messages_ = 0, attachments_ = 0, top_messages_ = 0, outside_ = 0;
  json top_ = json::array(), errors_ = json::array();
};

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fputs("usage: vaultinfo FILE\n", stderr);
    return 2;
  }
  json out{{"file", argv[1]}};
  int status = 0;
  try {
    const auto store = vault::Store::Open(std::filesystem::path(argv[1]));
    constexpr const char* kEncodings[] = {"none", "permute", "cyclic"};
    out["opens"] = true;
    out["format"] = store->format() == vault::Format::kUnicode ? "unicode" : "ansi";
    out["encoding"] = kEncodings[static_cast<unsigned>(store->encoding())];
    out["uid"] = Hex(store->uid());
    out["name"] = vault::Utf8FromUtf16(store->name());
    Survey(*store).Run(out);
  } catch (const vault::Error& error) {
    out["opens"] = false;
    out["error"] = error.what();
    status = 1;
  }
  std::puts(out.dump(-1, ' ', false, json::error_handler_t::replace).c_str());
  return status;
}
