// Pages of the node and block trees: look-ups and walks behind right trailers and checksums.
#include "fuzz/reading.h"
#include "fuzz/store_image.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const fuzz::Bytes store = fuzz::PageCase::Parse({data, size}).MakeStore();
  try {
    const auto db = vault::Database::OpenBytes(store);
    std::int64_t last = -1;
    for (vault::NodeCursor cursor(db, 0, ~vault::Nid{0}); cursor.Next();) {
      if (cursor.error()) continue;
      const vault::NodeInfo node = cursor.node();
      FUZZ_CHECK(node.nid > last);
      last = node.nid;
      try {
        if (const auto found = db->FindNode(node.nid)) FUZZ_CHECK(found->nid == node.nid);
        const auto block = db->FindBlock(node.data, node.nid);
        FUZZ_CHECK(block.bytes.data() >= store.data() &&
                   block.bytes.data() + block.bytes.size() <= store.data() + store.size());
      } catch (const vault::Error&) {
      }
    }
    for (vault::NodeCursor cursor(db, 0x21, 0x8022); cursor.Next();) {
      if (!cursor.error()) FUZZ_CHECK(cursor.node().nid >= 0x21 && cursor.node().nid <= 0x8022);
    }
  } catch (const vault::Error&) {
  }
  return 0;
}
