// make_corpus FOLDER [SAMPLES]: writes seeds for every fuzz target, one folder each: stores of the writer in every
// encoding, what lies in them, and the smallest of the real stores where there are some. The folder "written" has the
// writer's stores for mutate_stores.
#include <algorithm>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <map>
#include <string>

#include "fuzz/store_image.h"
#include "module/shell/ItemIdLayout.h"
#include "tests/vault/store_surgeon.h"
#include "tools/mkvault/demo.h"
#include "vault/heap.h"
#include "vault/store.h"
#include "vault/text/compressed_rtf.h"
#include "vault/writer.h"
#include "winprops/SerializedStorage.h"

namespace {

namespace fs = std::filesystem;
using fuzz::Bytes;
using fuzz::View;

constexpr std::size_t kMaxStore = 300 << 10, kMaxCase = 24 << 10, kMaxText = 8 << 10;
constexpr unsigned kPerKind = 10;  // seeds of one kind from one store

class Corpus {
 public:
  explicit Corpus(fs::path folder) : folder_(std::move(folder)) {}

  void Add(const std::string& target, const std::string& origin, View bytes) {
    fs::create_directories(folder_ / target);
    const auto name = origin + "-" + std::to_string(count_[target]++);
    std::ofstream(folder_ / target / name, std::ios::binary)
        .write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
  }
  void Add(const std::string& target, const std::string& origin, char lead, std::string_view text) {
    const std::string whole = std::string(1, lead) + std::string(text);
    Add(target, origin, View(reinterpret_cast<const std::uint8_t*>(whole.data()), whole.size()));
  }
  // A short text that breaks off at every place.
  void AddPrefixes(const std::string& target, char lead, std::string_view text) {
    for (std::size_t length = 1; length <= text.size(); ++length) Add(target, "hand", lead, text.substr(0, length));
  }
  const std::map<std::string, unsigned>& counts() const { return count_; }

 private:
  fs::path folder_;
  std::map<std::string, unsigned> count_;
};

// Takes one open store apart.
class Dissector {
 public:
  Dissector(Corpus& corpus, std::string origin, Bytes bytes)
      : corpus_(corpus), origin_(std::move(origin)), surgeon_(std::move(bytes)) {
    db_ = vault::Database::OpenBytes(surgeon_.bytes());
    store_ = vault::Store::OpenBytes(surgeon_.bytes());
  }

  void Run() {
    if (surgeon_.bytes().size() <= kMaxStore) corpus_.Add("store", origin_, surgeon_.bytes());
    Pages();
    for (vault::NodeCursor cursor(db_, 0, ~vault::Nid{0}); cursor.Next();) {
      if (cursor.error()) continue;
      Try([&] { Node(cursor.node()); });
      Try([&] { Bodies(cursor.node().nid); });
    }
  }

 private:
  template <typename Body>
  static void Try(Body body) {
    try {
      body();
    } catch (const vault::Error&) {
      // Not every seed can be had.
    }
  }

  bool ansi() const { return surgeon_.layout().word == 4; }

  void Collect(fuzz::BlockCase& to, vault::Bid bid) {
    if (!bid || to.blocks.count(bid) || to.blocks.size() >= 60) return;
    const auto stored = db_->FindBlock(bid, 0);
    Bytes& plain = to.blocks[bid];
    plain.resize(stored.bytes.size());
    vault::Decode(stored.internal() ? vault::Encoding::kNone : db_->encoding(), bid, stored.bytes, plain.data());
    if (!stored.internal()) return;
    const vault::Layout& layout = db_->layout();
    const Bytes list = plain;
    const unsigned count = vault::Load16(list.data() + 2), w = layout.word;
    if (list[0] == 1) {
      for (unsigned i = 0; i < count; ++i) Collect(to, vault::PlainBid(layout.Word(list.data() + 8 + i * w)));
      return;
    }
    const unsigned size = list[1] ? layout.subnode_branch : layout.subnode_entry;
    for (unsigned i = 0; i < count; ++i) {
      const std::uint8_t* const entry = list.data() + layout.subnode_header + i * size;
      Collect(to, vault::PlainBid(layout.Word(entry + w)));
      if (!list[1]) Collect(to, vault::PlainBid(layout.Word(entry + 2 * w)));
    }
  }

  void Node(const vault::NodeInfo& node) {
    if (!node.data) return;
    fuzz::BlockCase seed;
    seed.ansi = ansi();
    seed.encoding = db_->encoding();
    seed.data = node.data;
    seed.subnodes = node.subnodes;
    Collect(seed, node.data);
    Collect(seed, node.subnodes);
    // Long values lie in subnodes.
    for (const vault::NodeInfo& inner : db_->ListSubnodes(node.subnodes)) {
      if (inner.subnodes || inner.data & vault::kInternalBlock) Node(inner);
    }
    const Bytes bytes = seed.Serialize();
    if (bytes.size() > kMaxCase) return;
    if (node.data & vault::kInternalBlock && ++taken_["list"] <= kPerKind) corpus_.Add("block", origin_, bytes);
    if (seed.blocks.size() > 1 && ++taken_["block"] <= kPerKind) corpus_.Add("block", origin_, bytes);
    std::string target = "block";
    Try([&] {
      const auto client = vault::Heap::Open(db_, node, vault::HeapClient::kAny)->client();
      target = client == vault::HeapClient::kTable ? "table" : "heap";
    });
    if (node.nid == vault::kNameMapNid) target = "names";
    if (vault::TypeOf(node.nid) == vault::NidType::kMessage) target = "message";
    if (++taken_[target] <= kPerKind) corpus_.Add(target, origin_, bytes);
  }

  // The first pages of both trees; references lead to where the pages will lie.
  void Pages() {
    fuzz::PageCase seed;
    seed.ansi = ansi();
    CollectPages(surgeon_.node_root(), 0, seed.node_pages);
    CollectPages(surgeon_.block_root(), seed.node_pages.size(), seed.block_pages);
    corpus_.Add("page", origin_, seed.Serialize());
  }

  void CollectPages(std::uint64_t offset, std::size_t first, std::vector<Bytes>& pages) {
    const vault::Layout& layout = surgeon_.layout();
    const unsigned w = layout.word;
    const std::uint8_t* const page = surgeon_.bytes_at(offset);
    const std::size_t self = pages.size();
    pages.emplace_back(page, page + layout.page_data);
    const std::uint8_t* const counts = page + layout.entry_count_at;
    if (!counts[3]) return;
    std::uint8_t kept = 0;
    for (unsigned i = 0; i < counts[0] && pages.size() < fuzz::PageCase::kMaxPages / 2; ++i, ++kept) {
      const std::size_t child = pages.size();
      CollectPages(layout.Word(page + i * counts[2] + 2 * w), first, pages);
      std::uint8_t* const entry = pages[self].data() + i * counts[2];
      const std::uint64_t bid = fuzz::PageCase::BidOf(first + child), at = fuzz::PageCase::OffsetOf(first + child);
      std::memcpy(entry + w, &bid, w);
      std::memcpy(entry + 2 * w, &at, w);
    }
    pages[self][layout.entry_count_at] = kept;
  }

  void Bodies(vault::Nid nid) {
    if (vault::TypeOf(nid) != vault::NidType::kMessage) return;
    const vault::Message message = store_->OpenMessage(nid);
    const auto take = [&](std::uint16_t id, const char* target, char lead) {
      const auto value = message.properties().Binary(id);
      if (!value || value->empty() || value->size() > kMaxText || ++taken_[target] > kPerKind) return;
      corpus_.Add(target, origin_, lead, {reinterpret_cast<const char*>(value->data()), value->size()});
      if (id != 0x1009) return;
      if (const auto rtf = vault::text::UnpackRtf(*value)) corpus_.Add(target, origin_, 1, *rtf);
    };
    take(0x1009, "rtf", 0);
    take(0x1013, "html", 1);
  }

  Corpus& corpus_;
  std::string origin_;
  test::StoreSurgeon surgeon_;
  std::shared_ptr<const vault::Database> db_;
  std::shared_ptr<const vault::Store> store_;
  std::map<std::string, unsigned> taken_;
};

Bytes ReadFile(const fs::path& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

// A store with one of everything that the writer knows, and values of all sizes.
void Fill(vault::StoreBuilder& store, std::size_t large) {
  store.Text(0x3001, "Seeds");
  auto& folder = store.top().AddFolder("Inbox");
  auto& message = folder.AddMessage("IPM.Note").Subject("RE: Invoice 17").From("Ann", "ann@example.com");
  message.To("Bob", "bob@example.org").Cc("Eve", "eve@example.org").SubmitTime(vault::FileTime(2024, 5, 2, 9, 30));
  message.Html("<html><body><p>Paid &amp; <b>done</b></p></body></html>").Rtf("{\\rtf1\\ansi Paid\\par done \\u8364?}");
  message.Int({vault::kTaskSet, 0x8101}, 2).Text({vault::kPublicStringsSet, "Keywords"}, "red");
  message.Texts({vault::kPublicStringsSet, "Categories"}, {"one", "two", "three"});
  message.AttachFile("note.txt", "The text of a file.");
  if (large) message.AttachFile("large.bin", std::string(large, 'x'));
  auto& inner = message.AttachMessage("IPM.Note").Subject("Inner").Body("Inside.");
  inner.AttachMessage("IPM.Task").Subject("Innermost");
  for (int i = 0; i < 5; ++i) folder.AddMessage("IPM.StickyNote").Body("Note " + std::to_string(i));
  folder.AddHidden("IPM.Configuration").Subject("hidden");
}

// Lists of lists of blocks, and trees of subnodes, as small as they can be: the fuzzer changes one byte as likely as
// any other, and here most of them matter.
void AddLists(Corpus& corpus) {
  for (const bool ansi : {false, true}) {
    const unsigned w = ansi ? 4 : 8;
    const auto list = [&](std::uint8_t type, std::uint8_t level, std::size_t header,
                          std::initializer_list<vault::Bid> words) {
      Bytes bytes(header + words.size() * w);
      bytes[0] = type;
      bytes[1] = level;
      std::size_t at = header;
      for (const vault::Bid word : words) std::memcpy(bytes.data() + at, &word, w), at += w;
      return bytes;
    };
    const unsigned subnode_header = ansi ? 4 : 8;
    fuzz::BlockCase seed;
    seed.ansi = ansi;
    seed.encoding = vault::Encoding::kPermute;
    seed.blocks = {{4, Bytes(8, 1)},
                   {8, Bytes(8, 2)},
                   {0x12, list(1, 1, 8, {4, 8})},
                   {0x16, list(1, 2, 8, {0x12})},
                   {0x1A, list(2, 0, subnode_header, {0x3F, 4, 0, 0x5F, 0x12, 0})},
                   {0x1E, list(2, 1, subnode_header, {0x3F, 0x1A})}};
    const auto count = [&](vault::Bid bid, std::uint8_t entries, std::uint8_t size) {
      seed.blocks[bid][2] = entries;
      if (size) seed.blocks[bid][4] = size;
    };
    count(0x12, 2, 16);
    count(0x16, 1, 16);
    count(0x1A, 2, 0);
    count(0x1E, 1, 0);
    for (const vault::Bid data : {0x12, 0x16}) {
      for (const vault::Bid subnodes : {0x1A, 0x1E}) {
        seed.data = data;
        seed.subnodes = subnodes;
        corpus.Add("block", "hand", seed.Serialize());
      }
    }
  }
}

void AddUrls(Corpus& corpus) {
  const std::string root = "zkoffline3x://{S-1-5-21-1-2-3-1001}/default/", vault = root + "C:\\Tessary\\a.db";
  const std::string folder = vault + "/000000003810A1BB1005E5101AA1BB08002B2A56C200A2060000";
  const std::string message = folder + "/00000000381[[1234]].zkm";
  for (const auto& text : {root, vault, folder, message, message + "/0A0B/report.pdf", message + "/0A/a/b.txt",
                           root + "C:/Tessary/[[x]]/a.DB/00", std::string(" http://example.com/default/ ")}) {
    corpus.Add("url", "hand", text[0], text.substr(1));
  }
}

// Item IDs around a parsing name, alone and behind another ID, and around nothing. The first byte says where the
// readable memory ends.
void AddItemIds(Corpus& corpus) {
  winprops::Value name;
  constexpr unsigned char kShell[] = {0xA6, 0x6A, 0x63, 0x28, 0x3D, 0x95, 0xD2, 0x11,
                                      0xB5, 0xD6, 0x00, 0xC0, 0x4F, 0xD9, 0x18, 0xD0};
  std::memcpy(name.format.data(), kShell, sizeof kShell);
  name.id = 24;
  name.type = 31;
  for (const char byte : {'\3', '\0', '\0', '\0', 'a', '\0', 'b', '\0', '\0', '\0'})
    name.data.push_back(static_cast<std::byte>(byte));
  winprops::Value named = name;
  std::memcpy(named.format.data(), winprops::kNamedFormat, sizeof winprops::kNamedFormat);
  named.name = u"n";
  const winprops::Value both[] = {name, named};
  for (const std::size_t count : {0, 1, 2}) {
    const auto storage = winprops::Serialize({both, count});
    std::vector<std::byte> id(itemid::BlockSize(storage.size()));
    itemid::WriteOuter(id.data(), storage.size());
    itemid::WriteInner(id.data(), itemid::kSignature, storage);
    const std::string bytes(reinterpret_cast<const char*>(id.data()), id.size());
    corpus.Add("item_id", "hand", '\0', bytes);
    corpus.Add("item_id", "hand", '\0', std::string("\5\0xyz", 5) + bytes);
    corpus.Add("item_id", "hand", '\2', bytes);
  }
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2 || argc > 3) {
    std::fputs("usage: make_corpus FOLDER [SAMPLES]\n", stderr);
    return 2;
  }
  try {
    const fs::path folder = argv[1];
    fs::create_directories(folder);
    Corpus corpus(folder);
    const fs::path file = folder / "store.tmp";
    for (const auto encoding : {vault::Encoding::kNone, vault::Encoding::kPermute, vault::Encoding::kCyclic}) {
      const std::string origin = "written" + std::to_string(static_cast<int>(encoding));
      for (const std::size_t large : {std::size_t{0}, std::size_t{20'000}}) {
        vault::StoreBuilder store("Seeds", encoding);
        Fill(store, large);
        store.Write(file);
        corpus.Add("written", origin, ReadFile(file));
        Dissector(corpus, origin, ReadFile(file)).Run();
      }
      vault::StoreBuilder demo("Archive", encoding);
      mkvault::AddMail(demo);
      mkvault::AddItems(demo);
      demo.Write(file);
      corpus.Add("written", "demo", ReadFile(file));
      Dissector(corpus, "demo" + std::to_string(static_cast<int>(encoding)), ReadFile(file)).Run();
    }
    fs::remove(file);
    std::vector<fs::path> samples;
    if (argc == 3 && fs::is_directory(argv[2])) {
      for (const auto& entry : fs::directory_iterator(argv[2])) {
        if (entry.path().extension() == ".pst" && entry.file_size() <= kMaxStore) samples.push_back(entry.path());
      }
    }
    std::sort(samples.begin(), samples.end());
    for (const fs::path& sample : samples) {
      try {
        Dissector(corpus, sample.stem().string(), ReadFile(sample)).Run();
      } catch (const vault::Error&) {
        corpus.Add("store", sample.stem().string(), ReadFile(sample));  // one that is refused is a seed, too
      }
    }
    AddUrls(corpus);
    AddItemIds(corpus);
    AddLists(corpus);
    corpus.AddPrefixes(
        "rtf", 1,
        "{\\rtf1\\ansi\\fromhtml1{\\*\\htmltag64 <p>}\\htmlrtf{\\f0 x\\htmlrtf0 a<b}\\'e9\\u-9?\\bin3 abc\\~}");
    corpus.AddPrefixes(
        "html", 0,
        "<table><tr><td>a<td>b</table><pre>x\n y</pre>&#x20AC;&eacute<a b='<'><script>no</script><!--x-->"
        "<![CDATA[y]]>");
    for (const char* pattern :
         {"<a ='", "<script>", "</p", "<!--", "&#1", "<![CDATA[", "<td><pre>", "<x@y", "\x1b$B!"}) {
      corpus.Add("html", "pattern", static_cast<char>(0xF0), pattern);
    }
    for (const char* pattern :
         {"{\\f1", "{\\*\\x", "\\u1?", "{\\fonttbl{\\f1\\fcharset2 ", "\\'", "\\bin1 ", "{\\htmlrtf "}) {
      corpus.Add("rtf", "pattern", static_cast<char>(0xF1), pattern);
    }
    for (const auto& [target, count] : corpus.counts()) std::printf("%s: %u seeds\n", target.c_str(), count);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "make_corpus: %s\n", error.what());
    return 1;
  }
  return 0;
}
