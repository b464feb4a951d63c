// Encodings, lists of blocks, and trees of subnodes.
#include <algorithm>

#include "fuzz/reading.h"
#include "fuzz/store_image.h"
#include "vault/data_tree.h"

namespace {

constexpr vault::Nid kNid = 0x21;

void CheckEncoding(const fuzz::BlockCase& input) {
  for (const auto& [bid, plain] : input.blocks) {
    fuzz::Bytes there(plain.size()), back(plain.size());
    vault::Encode(input.encoding, bid, plain, there.data());
    vault::Decode(input.encoding, bid, there, back.data());
    FUZZ_CHECK(back == plain);
  }
}

void ReadData(const std::shared_ptr<const vault::Database>& db, const vault::NodeInfo& node) {
  vault::ValueReader value(db, node.data, node.nid, vault::PropType::kBinary);
  FUZZ_CHECK(value.size() <= db->file_size());
  const auto all = value.ReadAll();
  FUZZ_CHECK(all.size() == value.size());
  std::uint8_t some[100];
  for (std::uint64_t at = 0; at < value.size(); at += 3001) {
    const std::size_t n = value.ReadAt(at, some);
    FUZZ_CHECK(std::equal(some, some + n, all.begin() + static_cast<std::ptrdiff_t>(at)));
  }
}

void ReadSubnodes(const std::shared_ptr<const vault::Database>& db, vault::Bid tree) {
  std::int64_t last = -1;
  for (const vault::NodeInfo& node : db->ListSubnodes(tree)) {
    FUZZ_CHECK(node.nid > last);
    last = node.nid;
    try {
      if (const auto found = db->FindSubnode(tree, node.nid)) FUZZ_CHECK(found->nid == node.nid);
      vault::ValueReader(db, node.data, node.nid, vault::PropType::kUnicode);
    } catch (const vault::Error&) {
    }
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const auto input = fuzz::BlockCase::Parse({data, size});
  CheckEncoding(input);
  const fuzz::Bytes store = input.MakeStore(kNid);
  try {
    const auto db = vault::Database::OpenBytes(store);
    const auto node = db->FindNode(kNid);
    FUZZ_CHECK(node);
    ReadSubnodes(db, node->subnodes);
    const vault::BlockList blocks(db, node->data, node->nid);
    for (std::uint32_t i = 0; i < std::min<std::uint32_t>(blocks.size(), 1000); ++i) {
      try {
        FUZZ_CHECK(blocks[i].size() <= db->layout().block_data);
      } catch (const vault::Error&) {
      }
    }
    ReadData(db, *node);
  } catch (const vault::Error&) {
  }
  return 0;
}
