// Asking the protocol host for items apart from a crawl.
#pragma once

#include <set>
#include <string>
#include <vector>

#include "index/environment.h"
#include "index/gatherer.h"
#include "index/vaults.h"

namespace hoardex {

inline constexpr int64_t kItemTimeout = 120;  // seconds that one item may take

// The host's lines are UTF-8: throws CommandError for what is not.
void RequireUtf8(const std::string& text);

// How to start the host, with these words after its command line. Throws CommandError when no host is named.
GatherOptions HostOptions(const Environment& environment, const std::vector<std::string>& words,
                          int64_t timeout_seconds);

struct ItemAnswer {
  nlohmann::json record;
  std::string lost;  // why there is no record: the host ended over it twice
  bool interrupted = false;
};
// Asks for one item. Throws HostError.
ItemAnswer AskItem(Gatherer& gatherer, const std::string& url);

// Takes the temporary links away however the dump ends.
struct TemporaryLinks {
  VaultFolder& folder;
  ~TemporaryLinks() { folder.ClearTemporary(); }
};

// The names under which the host sees these stores (or folders of stores): their vaults' own, or temporary ones. What
// is refused is said on standard error and counted.
std::set<std::string> LinkFiles(const Environment& environment, const std::vector<std::string>& arguments,
                                VaultFolder& folder, int64_t* refused);

}  // namespace hoardex
