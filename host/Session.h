// The protocol host's side of the search protocol: makes the handler of the scheme through COM, and turns one URL into
// one record.
#pragma once

#include <windows.h>

#include <wrl/client.h>

#include <nlohmann/json.hpp>
#include <string>

#include "platform/searchapi.h"

namespace host {

using Json = nlohmann::ordered_json;

// One handler instance, used by one thread. COM must be initialised on it.
class Session {
 public:
  ~Session();

  // Finds the handler's ProgID among the registered protocol handlers, makes the object and initialises it.
  HRESULT Open();

  // The search root of this user.
  std::string RootUrl() const;

  // Reads one item: its accessor's answers, then every chunk with its value or text. Never throws for what the item
  // holds: a failure is the record's "error". `with_chunks` lists the chunks in the order in which they came.
  Json Read(const std::string& url, bool with_chunks);

 private:
  Microsoft::WRL::ComPtr<IProtocolHandlerSite> site_;
  Microsoft::WRL::ComPtr<ISearchProtocol> protocol_;
};

// The record of a step that failed: {"step", "code", "name"}.
Json ErrorOf(const char* step, HRESULT code);

}  // namespace host
