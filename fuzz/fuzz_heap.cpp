// A heap, the trees on it, and the properties that it holds.
#include "fuzz/reading.h"
#include "fuzz/store_image.h"
#include "vault/heap.h"

namespace {

constexpr vault::Nid kNid = 0x21;

void ReadTree(const vault::Heap& heap, unsigned key_size, unsigned record_size) {
  try {
    const vault::TreeOnHeap tree(heap, heap.root(), key_size, record_size);
    fuzz::Budget budget(100'000);
    std::int64_t last = -1;
    for (auto cursor = tree.Walk(); cursor.Next(heap) && budget.Take(1);) {
      if (cursor.error()) continue;
      FUZZ_CHECK(static_cast<std::int64_t>(cursor.key()) > last);
      FUZZ_CHECK(cursor.record().size() == record_size);
      last = static_cast<std::int64_t>(cursor.key());
      try {
        if (const auto found = tree.Find(heap, cursor.key())) FUZZ_CHECK(found->size() == record_size);
      } catch (const vault::Error&) {
      }
    }
  } catch (const vault::Error&) {
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const fuzz::Bytes store = fuzz::BlockCase::Parse({data, size}).MakeStore(kNid);
  try {
    const auto db = vault::Database::OpenBytes(store);
    const auto heap = vault::Heap::Open(db, db->FindNode(kNid).value(), vault::HeapClient::kAny);
    for (std::uint32_t hid = 0x20; hid < 0x400; hid += 0x20) {
      try {
        heap->Item(hid);
        heap->Item(0x10000 + hid);
      } catch (const vault::Error&) {
      }
    }
    ReadTree(*heap, 4, 4);
    ReadTree(*heap, 4, 2);
    ReadTree(*heap, 2, 6);
    fuzz::Budget budget(fuzz::kReadingBudget);
    fuzz::ReadProperties(vault::PropertySet(heap), budget);
  } catch (const vault::Error&) {
  }
  return 0;
}
