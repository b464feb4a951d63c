// The protocol host's side of the search protocol: makes the handler of the scheme through COM, and turns one URL into
// one record.
#pragma once

#include <windows.h>

#include <wrl/client.h>

#include <nlohmann/json.hpp>
#include <string>
#include <string_view>

#include "platform/searchapi.h"

namespace host {

using Json = nlohmann::ordered_json;

// One handler instance, used by one thread. COM must be initialised on it.
class Session {
 public:
  ~Session();

  // Finds the handler's ProgID among the registered protocol handlers, makes the object and initialises it.
  HRESULT Open();

  // An accessor for one URL, and its end. CreateAccessor fails with E_INVALIDARG for a URL that no terminated string
  // can hold.
  HRESULT CreateAccessor(const std::string& url, IUrlAccessor** accessor);
  void CloseAccessor(IUrlAccessor* accessor);

  // Whether the site has a filter for files of this extension (without its dot).
  bool HasFilter(const std::wstring& extension) const;

  // Reads one item: its accessor's answers, then every chunk with its value or text. Never throws for what the item
  // holds: a failure is the record's "error". `with_chunks` lists the chunks in the order in which they came.
  Json Read(const std::string& url, bool with_chunks);

 private:
  Microsoft::WRL::ComPtr<IProtocolHandlerSite> site_;
  Microsoft::WRL::ComPtr<ISearchProtocol> protocol_;
};

// The record of a step that failed: {"step", "code", "name"}.
Json ErrorOf(const char* step, HRESULT code);

// "root", "vault", "folder", "message", "attachment" or "unknown", by the grammar of the URL.
const char* KindOf(std::string_view url);

}  // namespace host
