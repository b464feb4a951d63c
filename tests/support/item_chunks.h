// Reads an item through a protocol object as a search host does, and keeps what each chunk said.
#pragma once

#include <windows.h>

#include <wrl/client.h>

#include <filterr.h>

#include <string>
#include <vector>

#include "platform/searchapi.h"

struct Chunk {
  ULONG id = 0;
  ULONG fmtid = 0;  // first field of the format identifier
  ULONG pid = 0;
  bool is_text = false;
  VARTYPE type = VT_EMPTY;
  std::wstring text;    // a string value, a link's URL, or the chunk's text
  LONGLONG number = 0;  // a numeric or Boolean value, or a FILETIME
};

inline LONGLONG TicksOf(const FILETIME& time) {
  return (static_cast<LONGLONG>(time.dwHighDateTime) << 32) | time.dwLowDateTime;
}

// One accessor and its filter; closed with the protocol object.
class Item {
 public:
  Item(ISearchProtocol* protocol, const std::wstring& url) : protocol_(protocol) {
    AUTHENTICATION_INFO authentication = {};
    INCREMENTAL_ACCESS_INFO incremental = {};
    ITEM_INFO info = {};
    result = protocol->CreateAccessor(url.c_str(), &authentication, &incremental, &info, &accessor);
  }
  ~Item() { Close(); }
  Item(const Item&) = delete;
  Item& operator=(const Item&) = delete;

  void Close() {
    filter.Reset();
    if (accessor) protocol_->CloseAccessor(accessor.Get());
    accessor.Reset();
  }

  HRESULT Bind() {
    HRESULT hr = accessor->BindToFilter(&filter);
    ULONG flags = 0;
    return FAILED(hr) ? hr : filter->Init(0, 0, nullptr, &flags);
  }

  // All chunks to the end; `last` is what GetChunk then said. Text comes in pieces of `room` characters.
  std::vector<Chunk> ReadAll(ULONG room = 1000) {
    std::vector<Chunk> chunks;
    STAT_CHUNK stat = {};
    while (chunks.size() < 1000) {
      stat.flags = static_cast<CHUNKSTATE>(0);
      last = filter->GetChunk(&stat);
      if (last != S_OK) break;
      Chunk chunk;
      chunk.id = stat.idChunk;
      chunk.fmtid = stat.attribute.guidPropSet.Data1;
      chunk.pid = stat.attribute.psProperty.propid;
      chunk.is_text = stat.flags == CHUNK_TEXT;
      if (!stat.flags) chunk.pid = 0;  // the filter left the structure alone
      if (chunk.is_text) ReadText(room, chunk);
      if (stat.flags == CHUNK_VALUE) ReadValue(chunk);
      chunks.push_back(chunk);
    }
    return chunks;
  }

  HRESULT result = E_FAIL, last = S_OK;
  Microsoft::WRL::ComPtr<IUrlAccessor> accessor;
  Microsoft::WRL::ComPtr<IFilter> filter;

 private:
  void ReadText(ULONG room, Chunk& chunk) {
    std::vector<wchar_t> buffer(room + 1);
    for (int piece = 0; piece < 100000; ++piece) {
      ULONG count = room;
      const HRESULT hr = filter->GetText(&count, buffer.data());
      if (FAILED(hr)) break;
      chunk.text.append(buffer.data(), count);
    }
  }
  void ReadValue(Chunk& chunk) {
    PROPVARIANT* value = nullptr;
    if (FAILED(filter->GetValue(&value)) || !value) return;
    chunk.type = value->vt;
    switch (value->vt) {
      case VT_LPWSTR:
        chunk.text = value->pwszVal;
        break;
      case VT_BOOL:
        chunk.number = value->boolVal;
        break;
      case VT_UI2:
        chunk.number = value->uiVal;
        break;
      case VT_I8:
        chunk.number = value->hVal.QuadPart;
        break;
      case VT_FILETIME:
        chunk.number = TicksOf(value->filetime);
        break;
      case VT_VECTOR | VT_VARIANT:
        chunk.text = value->capropvar.pElems[0].pwszVal;
        chunk.number = TicksOf(value->capropvar.pElems[1].filetime);
        break;
      default:
        break;
    }
    PropVariantClear(value);
    CoTaskMemFree(value);
  }

  ISearchProtocol* protocol_;
};
