// Runs a compiled query over the index.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "index/query.h"
#include "index/store.h"

namespace hoardex {

// Around every matching word of a snippet; neither occurs in text that has gone through OneLine.
inline constexpr char kMarkStart = '\x02', kMarkEnd = '\x03';

struct Hit {
  int64_t id = 0;
  std::string url, vault, title, sender, path, kinds, date, snippet, error;
  std::string parent_title;  // of an attachment: the subject of its mail
  std::string properties;    // JSON; only with HitDetail::kProperties
  ItemKind kind = ItemKind::kUnknown;
  double score = 0;  // smaller is better; 0 without ranked words
};

struct SearchResult {
  int64_t total = 0;
  std::vector<Hit> hits;
};

// What is looked up of every hit: neither, the snippet, or the snippet and the properties.
enum class HitDetail { kBare, kSnippet, kProperties };

// The best `limit` hits, the newest first among equals and where nothing is ranked. Throws QueryError and
// DatabaseError.
SearchResult Search(Store& store, const QueryPlan& plan, int64_t limit, HitDetail detail);

}  // namespace hoardex
