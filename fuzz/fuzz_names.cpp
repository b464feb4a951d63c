// The map between named properties and their ids.
#include "fuzz/reading.h"
#include "fuzz/store_image.h"
#include "vault/heap.h"
#include "vault/name_map.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const fuzz::Bytes store = fuzz::BlockCase::Parse({data, size}).MakeStore(vault::kNameMapNid);
  try {
    const auto db = vault::Database::OpenBytes(store);
    const auto node = db->FindNode(vault::kNameMapNid).value();
    const vault::NameMap names(vault::PropertySet(vault::Heap::Open(db, node, vault::HeapClient::kProperties)));
    for (const std::uint16_t id : names.Ids()) {
      const auto name = names.NameOf(id);
      FUZZ_CHECK(name && id >= 0x8000);
      // Two ids may have the same name, but every name is found.
      const auto* const text = std::get_if<std::u16string_view>(&name->id);
      const auto found = text ? names.FindId(name->set, *text) : names.FindId(name->set, std::get<0>(name->id));
      FUZZ_CHECK(found);
      const auto again = names.NameOf(*found);
      FUZZ_CHECK(again && again->set == name->set && again->id == name->id);
    }
  } catch (const vault::Error&) {
  }
  return 0;
}
