// Stores made to cost more than they weigh: work and memory stay within the size of the file, and what is intact is
// read.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>
#include <fstream>
#include <iterator>

#include "fuzz/store_image.h"
#include "tests/support/store_walk.h"
#include "tests/vault/store_surgeon.h"
#include "vault/heap.h"
#include "vault/writer.h"

namespace {

using fuzz::Bytes;
using vault::Bid;
using vault::ErrorCode;
using vault::Nid;

constexpr Nid kNid = 0x60E, kRowsNid = 0x3F;
constexpr Bid kHeapBid = 4, kFullBid = 8, kListBid = 0x12, kSubnodesBid = 0x16;
constexpr std::size_t kFull = 8176, kRepeats = 400;

template <typename T>
void Append(Bytes& to, std::initializer_list<T> values) {
  for (const T value : values) {
    const std::size_t at = to.size();
    to.resize(at + sizeof value);
    std::memcpy(to.data() + at, &value, sizeof value);
  }
}

// A heap with these items; the first is its root.
Bytes MakeHeap(vault::HeapClient client, const std::vector<Bytes>& items) {
  Bytes heap(12);
  std::vector<std::uint16_t> bounds;
  for (const Bytes& item : items) {
    bounds.push_back(static_cast<std::uint16_t>(heap.size()));
    heap.insert(heap.end(), item.begin(), item.end());
  }
  const auto map = static_cast<std::uint16_t>(heap.size());
  std::memcpy(heap.data(), &map, sizeof map);
  heap[2] = 0xEC;
  heap[3] = static_cast<std::uint8_t>(client);
  heap[4] = 0x20;
  Append<std::uint16_t>(heap, {static_cast<std::uint16_t>(items.size()), 0});
  for (const std::uint16_t bound : bounds) Append(heap, {bound});
  Append(heap, {map});
  return heap;
}

struct ColumnSpec {
  vault::PropTag tag;
  std::uint16_t offset;
  std::uint8_t size;
};

// A table whose rows, of `bits_at` bytes and one more, lie in the subnode kRowsNid.
Bytes MakeTable(std::uint16_t bits_at, const std::vector<ColumnSpec>& columns) {
  Bytes info = {0x7C, static_cast<std::uint8_t>(columns.size())};
  Append<std::uint16_t>(info, {bits_at, bits_at, bits_at, static_cast<std::uint16_t>(bits_at + 1)});
  Append<std::uint32_t>(info, {0x40, kRowsNid, 0});
  for (const ColumnSpec& column : columns) {
    Append(info, {column.tag});
    Append(info, {column.offset});
    Append<std::uint8_t>(info, {column.size, static_cast<std::uint8_t>(&column - columns.data())});
  }
  return MakeHeap(vault::HeapClient::kTable, {info, {0xB5, 4, 4, 0, 0, 0, 0, 0}});
}

// A node whose data, and its subnode kRowsNid, are a list that names one full block again and again.
fuzz::BlockCase RepeatedBlock() {
  fuzz::BlockCase result;
  result.encoding = vault::Encoding::kPermute;
  // Only the first is referred to; the others make the file large enough for the list to be believed.
  for (Bid bid = kFullBid; bid < kListBid; bid += 4) result.blocks[bid] = Bytes(kFull, 1);
  for (Bid bid = 0x100; bid < 0x110; bid += 4) result.blocks[bid] = Bytes(kFull, 1);
  Bytes& list = result.blocks[kListBid];
  list = {1, 1};
  Append<std::uint16_t>(list, {kRepeats});
  Append<std::uint32_t>(list, {kFull});
  for (std::size_t i = 0; i < kRepeats; ++i) Append(list, {kFullBid});
  Bytes& subnodes = result.blocks[kSubnodesBid];
  subnodes = {2, 0, 1, 0, 0, 0, 0, 0};
  Append<std::uint64_t>(subnodes, {kRowsNid, kListBid, 0});
  result.data = kListBid;
  result.subnodes = kSubnodesBid;
  return result;
}

ErrorCode CodeOfTable(const fuzz::BlockCase& input) {
  const Bytes store = input.MakeStore(kNid);
  const auto db = vault::Database::OpenBytes(store);
  try {
    const vault::Table table(vault::Heap::Open(db, *db->FindNode(kNid), vault::HeapClient::kTable));
    ADD_FAILURE() << "opened with " << table.row_count() << " rows";
  } catch (const vault::Error& error) {
    return error.code();
  }
  return ErrorCode::kCannotOpen;
}

TEST(Bounds, OneBlockNamedAgainAndAgainIsNotDecodedWithoutEnd) {
  const Bytes store = RepeatedBlock().MakeStore(kNid);
  ASSERT_LT(store.size(), kRepeats * kFull / 10);
  const auto db = vault::Database::OpenBytes(store);
  const vault::BlockList blocks(db, db->FindNode(kNid)->data, kNid);
  ASSERT_EQ(blocks.size(), kRepeats);
  std::size_t decoded = 0;
  const auto read_all = [&] {
    for (std::uint32_t i = 0; i < blocks.size(); ++i) decoded += blocks[i].size();
  };
  EXPECT_THROW(read_all(), vault::Error);
  EXPECT_GE(decoded, kFull);
  EXPECT_LE(decoded, store.size() + kFull);
  EXPECT_EQ(blocks[0].size(), kFull) << "what was read before stays readable";
}

TEST(Bounds, TablesClaimNoMoreThanTheFileHolds) {
  auto rows = RepeatedBlock();
  rows.data = kHeapBid;
  rows.blocks[kHeapBid] = MakeTable(4, {});
  EXPECT_EQ(CodeOfTable(rows), ErrorCode::kBadTable);

  // A column on top of another multiplies the work on a row.
  auto columns = rows;
  columns.blocks[kListBid][2] = 1;
  columns.blocks[kListBid][3] = 0;
  columns.blocks[kHeapBid] = MakeTable(8, {{0x67F20003, 0, 4}, {0x30010003, 4, 4}});
  const Bytes good = columns.MakeStore(kNid);
  const auto db = vault::Database::OpenBytes(good);
  EXPECT_EQ(vault::Table(vault::Heap::Open(db, *db->FindNode(kNid), vault::HeapClient::kTable)).row_count(), kFull / 9);
  columns.blocks[kHeapBid] = MakeTable(8, {{0x67F20003, 0, 4}, {0x30010003, 4, 4}, {0x30020003, 4, 4}});
  EXPECT_EQ(CodeOfTable(columns), ErrorCode::kBadTable);
}

class WrittenStore : public testing::Test {
 protected:
  void TearDown() override { std::filesystem::remove(file_); }
  test::StoreSurgeon Write(const vault::StoreBuilder& builder) {
    builder.Write(file_);
    return test::StoreSurgeon(file_);
  }
  const std::filesystem::path file_ =
      std::filesystem::temp_directory_path() / ("vault-bounds-" + std::to_string(::getpid()) + ".pst");
};

TEST_F(WrittenStore, ADamagedPageDoesNotCloseTheWholeStore) {
  vault::StoreBuilder builder("Pages");
  auto& folder = builder.top().AddFolder("Inbox");
  for (int i = 0; i < 100; ++i) folder.AddMessage("IPM.Note").Subject("Number " + std::to_string(i));
  auto surgeon = Write(builder);
  const auto good = vault::Store::OpenBytes(surgeon.bytes());
  const Nid top = good->subtree();
  const auto before = test::WalkStore(*good);
  ASSERT_THAT(before.errors, testing::IsEmpty());
  const vault::Layout& layout = surgeon.layout();
  unsigned damaged = 0;
  for (const auto& part : surgeon.parts()) {
    if (!part.is_page) break;
    std::uint8_t* const page = surgeon.bytes().data() + part.offset;
    bool has_top = false, has_store = false;
    for (unsigned i = 0; i < page[layout.entry_count_at] && !page[layout.entry_count_at + 3]; ++i) {
      const Nid nid = vault::Load32(page + i * page[layout.entry_count_at + 2]);
      has_top |= page[layout.page_data] == vault::kNodeTreePage && nid == top;
      has_store |= nid == vault::kStoreNid;
    }
    if (!has_top || has_store) continue;
    page[0] ^= 1;
    ++damaged;
  }
  ASSERT_EQ(damaged, 1u);
  const auto store = vault::Store::OpenBytes(surgeon.bytes());
  EXPECT_EQ(store->subtree(), top);
  EXPECT_THROW(store->OpenFolder(top), vault::Error);
  const auto after = test::WalkStore(*store);
  EXPECT_THAT(after.errors, testing::Each(testing::HasSubstr("a tree page does not pass its checksum")));
  EXPECT_GE(after.messages, 85u);
}

TEST_F(WrittenStore, AMessageWithinItselfIsRefused) {
  vault::StoreBuilder builder("Circle");
  auto& message = builder.top().AddFolder("Inbox").AddMessage("IPM.Note");
  for (const char* subject : {"One", "Two"}) message.AttachMessage("IPM.Note").Subject(subject);
  auto surgeon = Write(builder);
  const Bytes whole = surgeon.bytes();
  const auto db = vault::Database::OpenBytes(whole);
  const auto store = vault::Store::OpenBytes(whole);
  Nid nid = 0;
  for (auto cursor = store->Nodes(); cursor.Next();) {
    if (vault::TypeOf(cursor.node().nid) == vault::NidType::kMessage) nid = cursor.node().nid;
  }
  const auto outer = db->FindNode(nid);
  ASSERT_TRUE(outer && outer->subnodes);
  // Both attachments hold the message that they are attached to: were that followed, it would never end.
  for (const Nid attachment : store->OpenMessage(nid).AttachmentNids()) {
    const Bid tree = db->FindSubnode(outer->subnodes, attachment)->subnodes;
    for (const auto& part : surgeon.parts()) {
      if (part.is_page || part.bid != tree) continue;
      surgeon.Change(part, [&](std::span<std::uint8_t> list) {
        std::memcpy(list.data() + 16, &outer->data, 8);
        std::memcpy(list.data() + 24, &outer->subnodes, 8);
      });
    }
  }
  const auto walked = test::WalkStore(*vault::Store::OpenBytes(surgeon.bytes()));
  EXPECT_EQ(walked.messages, 1u);
  EXPECT_THAT(walked.errors, testing::Each(testing::HasSubstr("a message is embedded in itself")));
  EXPECT_EQ(walked.errors.size(), 2u);
}

}  // namespace
