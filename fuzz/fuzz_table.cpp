// A table: its description, index, rows and cells.
#include "fuzz/reading.h"
#include "fuzz/store_image.h"
#include "vault/heap.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  constexpr vault::Nid kNid = 0x60E;
  const fuzz::Bytes store = fuzz::BlockCase::Parse({data, size}).MakeStore(kNid);
  try {
    const auto db = vault::Database::OpenBytes(store);
    const vault::Table table(vault::Heap::Open(db, db->FindNode(kNid).value(), vault::HeapClient::kTable));
    fuzz::Budget budget(fuzz::kReadingBudget);
    fuzz::ReadTable(table, budget);
    for (const auto& column : table.columns()) FUZZ_CHECK(table.FindColumn(vault::IdOf(column.tag)));
  } catch (const vault::Error&) {
  }
  return 0;
}
