// What became of one item, in sentences for whoever is asked why something is not found.
#pragma once

#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "index/record.h"
#include "index/store.h"

namespace hoardex {

// What is known, from wherever it is known.
struct ItemFacts {
  std::string url;
  ItemKind kind = ItemKind::kUnknown;

  // Of the vault; empty when it is there. With it, nobody was asked.
  std::string vault_trouble;

  // What the item's container says. Not asked for the root.
  bool container_asked = false;
  std::string container_error;
  std::optional<Link> link;
  bool undated = false;  // listed, but with no time of its own

  // The host's record of the item, with the module's log lines and the policy; or why there is none.
  nlohmann::json record;
  std::string lost;

  bool index_there = false;
  std::optional<ItemStatus> status;
};

struct LogLine {
  std::string text;
  bool failure = false;
};

struct Explanation {
  std::string verdict;                 // one sentence
  std::vector<std::string> sentences;  // step by step: promised, opened, given, left out, indexed, what to do
  std::vector<std::string> left_out;   // of these, those about what is missing
  std::vector<LogLine> log;
};

Explanation Explain(const ItemFacts& facts);

// The URL of the container that lists this item, and how its link begins: a message is linked with its size, which the
// URL of an attachment leaves out. Empty for the root and for what is no item.
std::string ContainerOf(const std::string& url);
bool IsSameItem(const std::string& link, const std::string& url);

}  // namespace hoardex
