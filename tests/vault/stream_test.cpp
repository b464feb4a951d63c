// Stores written as they go: folders in any order, messages that cannot be written, files that come to nothing.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <iterator>
#include <random>

#include "tests/support/store_walk.h"
#include "tests/vault/rich_store.h"
#include "tests/vault/store_surgeon.h"
#include "vault/error.h"
#include "vault/store.h"
#include "vault/store_stream.h"
#include "vault/tree_writer.h"

namespace {

namespace fs = std::filesystem;
using test::Pattern;
using testing::ElementsAre;
using testing::IsEmpty;
using vault::MessageBuilder;
using vault::Source;
using vault::Utf8FromUtf16;

class Stream : public testing::Test {
 protected:
  void SetUp() override { fs::create_directories(folder_); }
  void TearDown() override { fs::remove_all(folder_); }

  std::vector<std::string> Files() const {
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(folder_)) names.push_back(entry.path().filename());
    return names;
  }

  const fs::path folder_ = fs::temp_directory_path() / ("vault-stream-" + std::to_string(::getpid()));
  const fs::path file_ = folder_ / "store.pst";
};

MessageBuilder Mail(const std::string& subject) {
  return std::move(MessageBuilder("IPM.Note").Subject(subject).Body("text of " + subject));
}

// "folder: subjects" for each folder below one, in the order of the tables.
void Outline(const vault::Store& store, vault::Nid nid, const std::string& indent, std::vector<std::string>& lines) {
  const vault::Folder folder = store.OpenFolder(nid);
  std::string line = indent + Utf8FromUtf16(folder.name()) + ":";
  const auto add = [&](const vault::Table& rows, const char* before) {
    for (auto row = rows.Walk(); row.Next();) {
      const auto message = store.OpenMessage(row.row().id());
      EXPECT_EQ(message.parent(), nid);
      line += before + Utf8FromUtf16(message.subject());
    }
  };
  add(folder.Contents(), " ");
  add(folder.Associated(), " hidden ");
  lines.push_back(line);
  const vault::Table below = folder.Hierarchy();
  for (auto row = below.Walk(); row.Next();) {
    ASSERT_TRUE(below.FindRow(row.row().id()));
    Outline(store, row.row().id(), indent + "  ", lines);
  }
}

TEST_F(Stream, FoldersMayBeOpenSideBySideAndCloseInAnyOrder) {
  vault::StoreStream stream(file_, "Side by side", vault::Encoding::kCyclic);
  auto& a = stream.top().OpenFolder("A");
  auto& b = stream.top().OpenFolder("B", "IPF.Contact");
  auto& inner = a.OpenFolder("A1");
  auto& innermost = inner.OpenFolder("A1a");
  std::vector<vault::Nid> nids;
  for (int round = 0; round < 3; ++round) {
    const std::string number = std::to_string(round);
    nids.push_back(b.AddMessage(Mail("b" + number)));
    nids.push_back(innermost.AddMessage(Mail("i" + number).Int(vault::prop::kMessageFlags, 0)));
    nids.push_back(a.AddMessage(Mail("a" + number)));
  }
  a.AddHidden(Mail("h"));
  stream.deleted_items().AddMessage(Mail("d"));
  b.Text(0x3004, "said late").Close();
  stream.top().OpenFolder("C").Close();
  a.Close();  // with what is open below it
  stream.top().AddMessage(Mail("t"));
  EXPECT_EQ(stream.message_count(), 12u);
  stream.Text(0x3004, "late, too").Finish();
  EXPECT_THROW(stream.top(), vault::Error);

  const auto store = vault::Store::Open(file_);
  std::vector<std::string> lines;
  Outline(*store, store->subtree(), "", lines);
  EXPECT_THAT(lines, ElementsAre("Top of Personal Folders: t", "  B: b0 b1 b2", "  C:", "  A: a0 a1 a2 hidden h",
                                 "    A1:", "      A1a: i0 i1 i2", "  Deleted Items: d"));
  EXPECT_TRUE(std::is_sorted(nids.begin(), nids.end()));
  EXPECT_EQ(store->properties().Text(0x3004), u"late, too");
  const vault::Folder folder_b = store->OpenFolder(*store->ParentOf(nids[0]));
  EXPECT_EQ(folder_b.properties().Text(0x3004), u"said late");
  EXPECT_EQ(folder_b.container_class(), u"IPF.Contact");
  const vault::Folder folder_i = store->OpenFolder(*store->ParentOf(nids[1]));
  EXPECT_EQ(folder_i.properties().Int(vault::prop::kContentUnread), 3);
  EXPECT_EQ(folder_i.properties().Int(vault::prop::kSubfolders), 0);
  EXPECT_EQ(store->OpenFolder(folder_i.parent()).properties().Int(vault::prop::kSubfolders), 1);
  EXPECT_THAT(test::WalkStore(*store).errors, IsEmpty());
}

// A source that gives `given` bytes of the `told` ones, then ends or throws.
Source Bad(std::uint64_t told, std::uint64_t given, bool throws) {
  return {told, [=]() -> Source::Reader {
            return [left = given, throws](std::span<std::uint8_t> to) mutable {
              const auto n = static_cast<std::size_t>(std::min<std::uint64_t>(left, to.size()));
              if (n == 0 && throws) throw std::runtime_error("the wire is cut");
              std::fill_n(to.begin(), n, std::uint8_t{7});
              left -= n;
              return n;
            };
          }};
}

TEST_F(Stream, WhatCannotBeWrittenIsAsIfItHadNeverBeenAdded) {
  std::vector<MessageBuilder> bad;
  const auto with = [&](const auto& change) { change(bad.emplace_back(Mail("bad"))); };
  with([](MessageBuilder& m) {
    m.AttachFile("ok", Pattern(100'000, 1)), m.AttachFile("a", Bad(50'000, 20'000, false));
  });
  with([](MessageBuilder& m) { m.AttachMessage("IPM.Note").AttachFile("a", Bad(9'000'000, 8'500'000, true)); });
  with([](MessageBuilder& m) { m.AttachFile("a", Bad(20'000, 20'001, false)); });
  with([](MessageBuilder& m) { m.Binary(0x6800, Bad(10, 9, false)); });
  with([](MessageBuilder& m) { m.AttachFile("a", Bad(0x1'0000'0000, 1, false)); });
  with([](MessageBuilder& m) { m.Set(0x6800, vault::PropType::kInt32, Pattern(3, 1)); });
  with([](MessageBuilder& m) { m.Set(0x6800, static_cast<vault::PropType>(0x77), Pattern(4, 1)); });
  with([](MessageBuilder& m) { m.Set(0x6800, vault::PropType::kUnicode, Pattern(5, 1)); });
  with([](MessageBuilder& m) { m.Set(0x6800, vault::PropType::kTime, Bad(8, 8, false)); });
  with([](MessageBuilder& m) { m.Int({vault::kPublicStringsSet, "Keywords"}, 1).Int(0x8000, 1); });
  with([](MessageBuilder& m) {
    MessageBuilder* inner = &m;
    for (unsigned depth = 0; depth <= vault::kMaxEmbeddingDepth; ++depth) inner = &inner->AttachMessage("IPM.Note");
  });
  vault::StoreStream stream(file_, "Good");
  vault::StoreBuilder wanted("Good");
  auto& folder = stream.top().OpenFolder("F");
  auto& wanted_folder = wanted.top().AddFolder("F");
  vault::Nid last = 0;
  for (const MessageBuilder& message : bad) {
    EXPECT_ANY_THROW(folder.AddMessage(message));
    const auto file = std::to_string(folder.message_count());
    const vault::Nid nid = folder.AddMessage(std::move(Mail(file).To("Bob", "bob@example.org")));
    wanted_folder.AddMessage("IPM.Note").Subject(file).Body("text of " + file).To("Bob", "bob@example.org");
    if (last) {
      EXPECT_EQ(nid, last + 0x20);
    }
    last = nid;
  }
  stream.Finish();
  const auto store = vault::Store::Open(file_);
  EXPECT_THAT(test::Differences(*store, wanted), IsEmpty());
  EXPECT_THAT(test::WalkStore(*store).errors, IsEmpty());
  // The block tree has no more blocks than that of a store in which nothing went wrong.
  wanted.Write(folder_ / "wanted.pst");
  const auto blocks = [](const fs::path& path) {
    const test::StoreSurgeon surgeon(path);
    return std::count_if(surgeon.parts().begin(), surgeon.parts().end(), [](const auto& p) { return !p.is_page; });
  };
  EXPECT_EQ(blocks(file_), blocks(folder_ / "wanted.pst"));
}

TEST_F(Stream, OnlyACompleteStoreGetsItsName) {
  {
    vault::StoreStream stream(file_, "Unfinished");
    stream.top().AddMessage(std::move(Mail("m").Binary(0x6800, Pattern(600'000, 1))));
    ASSERT_EQ(Files().size(), 1u);
    EXPECT_FALSE(fs::exists(file_));
    EXPECT_THROW(vault::Store::Open(folder_ / Files()[0]), vault::Error);
  }
  EXPECT_THAT(Files(), IsEmpty());

  vault::StoreBuilder("Old").Write(file_);
  {
    vault::StoreStream stream(file_, "New");
    stream.top().AddMessage(Mail("m"));
  }
  EXPECT_EQ(vault::Store::Open(file_)->name(), u"Old");

  // The disk is full, so to speak.
  struct rlimit before;
  ASSERT_EQ(::getrlimit(RLIMIT_FSIZE, &before), 0);
  const struct rlimit small { 1'000'000, before.rlim_max };
  ::signal(SIGXFSZ, SIG_IGN);
  ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &small), 0);
  {
    vault::StoreStream stream(file_, "New");
    const auto large = Mail("m").Binary(0x6800, Pattern(3'000'000, 1));
    EXPECT_THROW(stream.top().AddMessage(large), vault::Error);
    EXPECT_THROW(stream.top().AddMessage(Mail("small")), vault::Error);
    EXPECT_THROW(stream.Finish(), vault::Error);
  }
  {
    vault::StoreStream stream(file_, "New");
    for (int i = 0; i < 3; ++i) stream.top().AddMessage(std::move(Mail("m").Binary(0x6800, Pattern(300'000, 1))));
    EXPECT_THROW(stream.Finish(), vault::Error);  // the last area does not fit
  }
  ::setrlimit(RLIMIT_FSIZE, &before);
  EXPECT_THAT(Files(), ElementsAre("store.pst"));
  EXPECT_EQ(vault::Store::Open(file_)->name(), u"Old");

  fs::create_directory_symlink(folder_, folder_ / "link");
  fs::create_symlink(file_, folder_ / "store.db");
  vault::StoreBuilder("New").Write(folder_ / "link" / "store.db");
  EXPECT_TRUE(fs::is_symlink(folder_ / "store.db"));
  EXPECT_EQ(vault::Store::Open(file_)->name(), u"New");
}

TEST_F(Stream, NodesComeOutSortedHoweverManyThereAre) {
  for (const std::uint32_t count : {1u, 65'536u, 65'537u, 300'000u}) {
    SCOPED_TRACE(count);
    const fs::path runs = folder_ / "runs";
    {
      vault::NodeSorter sorter(runs);
      std::vector<std::uint32_t> ids(count);
      for (std::uint32_t i = 0; i < count; ++i) ids[i] = i;
      std::shuffle(ids.begin(), ids.end(), std::mt19937(5));
      for (const std::uint32_t id : ids) sorter.Add({id, id * 7ull, id * 11ull, id / 2});
      EXPECT_EQ(fs::exists(runs), count > 65'536);
      std::uint32_t next = 0, wrong = 0;
      sorter.Drain([&](const vault::NodeInfo& node) {
        wrong +=
            node.nid != next || node.data != next * 7ull || node.subnodes != next * 11ull || node.parent != next / 2;
        ++next;
      });
      EXPECT_EQ(next, count);
      EXPECT_EQ(wrong, 0u);
    }
    EXPECT_FALSE(fs::exists(runs));
  }
}

TEST_F(Stream, SourcesAreReadFromWhereTheyStood) {
  const auto bytes = Pattern(70'000, 2);
  std::ofstream(folder_ / "source", std::ios::binary).write(reinterpret_cast<const char*>(bytes.data()), 70'000);
  const auto stream = std::make_shared<std::ifstream>(folder_ / "source", std::ios::binary);
  stream->seekg(1000);
  vault::StoreBuilder builder("Sources");
  auto& message = builder.top().AddMessage("IPM.Note");
  message.AttachFile("whole", Source::File(folder_ / "source"));
  message.AttachFile("rest", Source::Stream(stream));
  message.Set(vault::prop::kBody, vault::PropType::kUnicode, Source::File(folder_ / "source"));
  builder.Write(file_);
  builder.Write(folder_ / "again.pst");
  for (const char* name : {"store.pst", "again.pst"}) {
    const auto store = vault::Store::Open(folder_ / name);
    EXPECT_THAT(test::Differences(*store, builder), IsEmpty());
    const auto found = store->OpenMessage(store->OpenFolder(store->subtree()).Contents().At(0).id());
    const auto attached = found.AttachmentNids();
    EXPECT_TRUE(found.OpenAttachment(attached.at(0)).Data()->ReadAll() == bytes);
    EXPECT_TRUE(found.OpenAttachment(attached.at(1)).Data()->ReadAll() ==
                std::vector<std::uint8_t>(bytes.begin() + 1000, bytes.end()));
    EXPECT_EQ(found.properties().Text(vault::prop::kBody)->size(), 35'000u);
  }
  EXPECT_THROW(Source::File(folder_ / "missing"), vault::Error);
  fs::remove(folder_ / "source");
  EXPECT_THROW(builder.Write(file_), vault::Error);
}

}  // namespace
