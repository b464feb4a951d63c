// What the writer writes, read back by our reader.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <fstream>
#include <iterator>
#include <set>

#include "tests/support/store_walk.h"
#include "tests/vault/rich_store.h"
#include "tests/vault/store_surgeon.h"
#include "vault/store.h"
#include "vault/writer.h"

namespace {

namespace fs = std::filesystem;
using test::Pattern;
using vault::Encoding;
using vault::Utf8FromUtf16;

class Writer : public testing::Test {
 protected:
  void SetUp() override { fs::create_directories(folder_); }
  void TearDown() override { fs::remove_all(folder_); }

  std::shared_ptr<const vault::Store> Written(const vault::StoreBuilder& builder) {
    builder.Write(file_);
    return vault::Store::Open(file_);
  }

  const fs::path folder_ = fs::temp_directory_path() / ("vault-writer-" + std::to_string(::getpid()));
  const fs::path file_ = folder_ / "store.pst";
};

std::string ReadFile(const fs::path& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

// Ids of the rows of the contents table of the first ordinary folder below the top with that name.
std::vector<vault::Nid> MessagesOf(const vault::Store& store, const std::string& name) {
  std::vector<vault::Nid> ids;
  const vault::Table folders = store.OpenFolder(store.subtree()).Hierarchy();
  for (auto cursor = folders.Walk(); cursor.Next();) {
    const vault::Folder folder = store.OpenFolder(cursor.row().id());
    if (Utf8FromUtf16(folder.name()) != name) continue;
    const vault::Table rows = folder.Contents();
    for (auto row = rows.Walk(); row.Next();) ids.push_back(row.row().id());
  }
  return ids;
}

TEST_F(Writer, ValuesOfEverySizeComeBackEqual) {
  constexpr std::size_t kBlock = 8176, kList = kBlock * 1021;
  const std::size_t sizes[] = {0,    1,      2,          3578,       3580,           3582,
                               8174, kBlock, kBlock + 2, 2 * kBlock, 2 * kBlock + 2, 100'000};
  for (const Encoding encoding : {Encoding::kNone, Encoding::kPermute, Encoding::kCyclic}) {
    vault::StoreBuilder builder("Sizes", encoding);
    auto& folder = builder.top().AddFolder("Values");
    std::vector<std::vector<std::uint8_t>> wanted;
    for (const std::size_t size : sizes) wanted.push_back(Pattern(size, static_cast<unsigned>(size)));
    if (encoding == Encoding::kPermute) {
      for (const std::size_t size : {kList - 1, kList, kList + 1, 2 * kList + 17}) wanted.push_back(Pattern(size, 7));
    }
    for (const auto& bytes : wanted) {
      const std::string text(bytes.size() / 2, 'x');
      folder.AddMessage("IPM.Note").Subject(std::to_string(bytes.size())).Body(text).AttachFile("a.bin", bytes);
    }
    const auto store = Written(builder);
    EXPECT_EQ(store->encoding(), encoding);
    const auto nids = MessagesOf(*store, "Values");
    ASSERT_EQ(nids.size(), wanted.size());
    for (std::size_t i = 0; i < nids.size(); ++i) {
      SCOPED_TRACE(wanted[i].size());
      const auto message = store->OpenMessage(nids[i]);
      EXPECT_EQ(message.properties().Text(vault::prop::kBody)->size(), wanted[i].size() / 2);
      auto data = message.OpenAttachment(message.AttachmentNids().at(0)).Data();
      ASSERT_TRUE(data);
      ASSERT_EQ(data->size(), wanted[i].size());
      EXPECT_TRUE(data->ReadAll() == wanted[i]);
      // A piece from the middle, across a block's end.
      if (wanted[i].size() <= kBlock + 1) continue;
      std::vector<std::uint8_t> piece(100);
      ASSERT_EQ(data->ReadAt(kBlock - 50, piece), std::min<std::size_t>(100, wanted[i].size() - kBlock + 50));
      EXPECT_TRUE(std::equal(piece.begin(), piece.begin() + 50, wanted[i].begin() + kBlock - 50));
    }
    EXPECT_THAT(test::WalkStore(*store).errors, testing::IsEmpty());
  }
}

TEST_F(Writer, EveryUnitInUseIsMarkedAndTheRestCounted) {
  vault::StoreBuilder builder("Maps");
  auto& folder = builder.top().AddFolder("Big");
  for (unsigned i = 0; i < 12; ++i) folder.AddMessage("IPM.Note").AttachFile("a.bin", Pattern(240'000 + i * 777, i));
  Written(builder);
  test::StoreSurgeon file(file_);
  constexpr std::uint64_t kFirst = 0x4400, kArea = 0x3E000;
  ASSERT_EQ((file.bytes().size() - kFirst) % kArea, 0u);
  const std::size_t areas = (file.bytes().size() - kFirst) / kArea;
  EXPECT_GT(areas, 9u);  // more than one page map
  std::set<std::uint64_t> used;
  const auto use = [&](std::uint64_t begin, std::uint64_t size) {
    EXPECT_EQ((begin - kFirst) / kArea, (begin + size - 1 - kFirst) / kArea) << "crosses an area";
    for (std::uint64_t at = begin; at < begin + size; at += 64) EXPECT_TRUE(used.insert(at).second) << "used twice";
  };
  for (std::size_t i = 0; i < areas; ++i) use(kFirst + i * kArea, i % 8 ? 512 : 1024);
  for (const auto& part : file.parts()) use(part.offset, part.is_page ? 512 : file.layout().block_size(part.size));
  std::uint64_t free_bytes = 0;
  for (std::size_t i = 0; i < areas; ++i) {
    const std::uint8_t* const map = file.bytes_at(kFirst + i * kArea);
    EXPECT_EQ(vault::Load32(map + 500), vault::Crc({map, 496}));
    for (std::uint64_t unit = 0; unit < kArea / 64; ++unit) {
      const bool marked = map[unit / 8] >> (7 - unit % 8) & 1;
      EXPECT_EQ(marked, used.count(kFirst + i * kArea + unit * 64) == 1);
      free_bytes += marked ? 0 : 64;
    }
  }
  EXPECT_EQ(vault::Load64(file.bytes_at(200)), free_bytes);
}

TEST_F(Writer, LargeFoldersAndItems) {
  constexpr unsigned kMessages = 2500, kFiles = 800, kValues = 60;
  vault::StoreBuilder builder("Large");
  auto& folder = builder.top().AddFolder("Many");
  for (unsigned i = 0; i < kMessages; ++i) {
    // Subjects fill the table's heap beyond its 137th block.
    folder.AddMessage("IPM.Note").Subject(std::to_string(i) + " " + std::string(220, 'a' + i % 26));
  }
  auto& item = builder.top().AddFolder("One").AddMessage("IPM.Note");
  for (unsigned i = 0; i < kFiles; ++i) item.AttachFile(std::to_string(i), std::to_string(i * i));
  for (unsigned i = 0; i < kValues; ++i) {
    item.Binary(static_cast<std::uint16_t>(0x6800 + i), Pattern(3000 + i, i));
  }
  const auto store = Written(builder);
  const auto nids = MessagesOf(*store, "Many");
  ASSERT_EQ(nids.size(), kMessages);
  const vault::Table rows = store->OpenFolder(*store->ParentOf(nids[0])).Contents();
  EXPECT_EQ(rows.row_count(), kMessages);
  for (unsigned i = 0; i < kMessages; i += 7) {
    const auto row = rows.FindRow(nids[i]);
    ASSERT_TRUE(row);
    EXPECT_THAT(Utf8FromUtf16(row->Find(vault::prop::kSubject)->AsText()),
                testing::StartsWith(std::to_string(i) + " "));
  }
  const auto one = store->OpenMessage(MessagesOf(*store, "One").at(0));
  const auto files = one.AttachmentNids();
  ASSERT_EQ(files.size(), kFiles);
  for (unsigned i = 0; i < kFiles; i += 97) {
    const auto bytes = one.OpenAttachment(files[i]).Data()->ReadAll();
    EXPECT_EQ(std::string(bytes.begin(), bytes.end()), std::to_string(i * i));
  }
  for (unsigned i = 0; i < kValues; ++i) {
    EXPECT_EQ(one.properties().Binary(static_cast<std::uint16_t>(0x6800 + i)), Pattern(3000 + i, i));
  }
  EXPECT_THAT(test::WalkStore(*store).errors, testing::IsEmpty());
}

// What nobody said to the builder; that what was said comes back is shown with other readers.
TEST_F(Writer, PropertiesAreComputedWhereReadersNeedThem) {
  const auto store = Written(test::RichStore(Encoding::kPermute));
  EXPECT_EQ(store->OpenFolder(vault::kRootFolderNid).parent(), vault::kRootFolderNid);
  const auto nids = MessagesOf(*store, "Mail");
  ASSERT_EQ(nids.size(), 3u);
  const vault::Folder mail = store->OpenFolder(*store->ParentOf(nids[0]));
  EXPECT_EQ(mail.properties().Int(vault::prop::kContentCount), 3);
  EXPECT_EQ(mail.properties().Int(vault::prop::kContentUnread), 1);
  EXPECT_EQ(mail.properties().Int(vault::prop::kSubfolders), 1);
  const vault::Message first = store->OpenMessage(nids[0]);
  const auto stored = *first.properties().Text(vault::prop::kSubject);
  EXPECT_EQ(stored, u"\x01\x05RE: Quarterly figures");
  EXPECT_EQ(vault::ParseSubject(stored).normalized(), u"Quarterly figures");
  EXPECT_EQ(first.properties().Text(0x0E04), u"Bob; Żaneta");
  EXPECT_EQ(first.properties().Text(0x0E02), u"Dan");
  EXPECT_TRUE(*first.properties().Int(vault::prop::kMessageFlags) & 0x10);
  EXPECT_GT(*first.properties().Int(vault::prop::kMessageSize), 50'000);
  EXPECT_EQ(first.properties().Binary(0x0071)->size(), 22u);
  EXPECT_EQ(first.Recipients().At(2).Find(0x39FE)->AsText(), u"carl@example.org");
  EXPECT_THROW(first.OpenAttachment(first.AttachmentNids().at(0)).OpenEmbedded(), vault::Error);
}

TEST_F(Writer, TheSameCallsGiveTheSameBytes) {
  const auto builder = [] { return test::RichStore(Encoding::kCyclic); };
  builder().Write(folder_ / "a");
  builder().Write(folder_ / "b");
  EXPECT_TRUE(ReadFile(folder_ / "a") == ReadFile(folder_ / "b"));
  EXPECT_THROW(builder().Write(folder_ / "missing" / "c"), vault::Error);
}

}  // namespace
