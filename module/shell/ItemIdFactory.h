// Shell item IDs that carry a property store.
#pragma once

#include <windows.h>

#include <propsys.h>
#include <shtypes.h>
#include <wrl/client.h>

#include <string>

#include "module/shell/ItemIdLayout.h"

// The payload of an item ID, from its signature on; the storage and two zero bytes follow.
#pragma pack(push, 1)
struct HOARDEX_ITEM {
  DWORD signature;
  WORD storage_size;
  WORD version;
  BYTE reserved;
};
#pragma pack(pop)

// Makes and reads IDs whose payload begins with an Item and carries this signature. No state; any thread.
template <class Item, DWORD Signature>
class CItemIDFactory {
  static_assert(sizeof(Item) == 9, "the layout of ItemIdLayout.h");

 public:
  // An ID around the store's serialised form; without a store the form is empty. With an allocator the host's memory
  // and outer fields, else memory of CoTaskMemAlloc. E_OUTOFMEMORY when the allocator, or without one an ID, cannot
  // carry the form. `id` is null after a failure.
  static HRESULT CreateItemID(IMalloc* allocator, IPropertyStore* store, PITEMID_CHILD* id);
  // A property of the last ID of a list; VT_EMPTY when its store has none of this key. E_INVALIDARG for anything that
  // is not an ID of ours, however it is broken; memory that cannot be read is not read.
  static HRESULT GetPropertyFromIDList(PCUIDLIST_RELATIVE list, REFPROPERTYKEY key, PROPVARIANT* value);
};

// The one property of an item's store: its URL. (The toolchain's headers lack the key.)
inline constexpr PROPERTYKEY PKEY_ParsingName = {
    {0x28636AA6, 0x953D, 0x11D2, {0xB5, 0xD6, 0x00, 0xC0, 0x4F, 0xD9, 0x18, 0xD0}}, 24};

using ItemIDs = CItemIDFactory<HOARDEX_ITEM, itemid::kSignature>;

// The parsing name in an ID: the item's URL. E_INVALIDARG when there is none.
HRESULT ReadParsingName(PCUIDLIST_RELATIVE list, std::wstring& url);
