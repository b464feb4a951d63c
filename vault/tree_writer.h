// The node tree and the block tree of a store being written ([MS-PST] 2.2.2.7.7).
#pragma once

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <functional>
#include <span>
#include <vector>

#include "vault/area_writer.h"
#include "vault/node.h"

namespace vault {

// Builds a tree from entries whose keys (their first eight bytes) rise. A page is written when it is full; one page of
// each level lies in memory. Throws Error(kCannotOpen).
class TreeWriter {
 public:
  // `next_page`: the id of the next page of the store, shared by all trees.
  TreeWriter(AreaWriter& space, std::uint8_t page_type, unsigned entry_size, Bid& next_page)
      : space_(space), type_(page_type), leaf_entry_(entry_size), next_page_(next_page) {}

  void Add(std::span<const std::uint8_t> entry) { AddTo(0, entry); }
  // Writes the open pages. There must have been an entry.
  AreaWriter::Root Finish();

 private:
  void AddTo(std::size_t level, std::span<const std::uint8_t> entry);
  AreaWriter::Root WritePage(std::size_t level);
  unsigned entry_size(std::size_t level) const { return level ? kUnicodeLayout.branch_entry : leaf_entry_; }

  AreaWriter& space_;
  std::uint8_t type_;
  unsigned leaf_entry_;
  Bid& next_page_;
  std::vector<std::vector<std::uint8_t>> levels_;  // entries of each level's open page
};

// Sorts nodes by id. Up to kInMemory of them are kept in memory; more go as sorted runs into a file of their own, which
// the destructor removes. Throws Error(kCannotOpen).
class NodeSorter {
 public:
  // `file`: a free name; created when it is needed.
  explicit NodeSorter(std::filesystem::path file) : path_(std::move(file)) {}
  ~NodeSorter();
  NodeSorter(const NodeSorter&) = delete;
  NodeSorter& operator=(const NodeSorter&) = delete;

  void Add(const NodeInfo& node);
  // Hands out all nodes, ids rising. Once.
  void Drain(const std::function<void(const NodeInfo&)>& take);

 private:
  static constexpr std::size_t kInMemory = 1 << 16;
  void Spill();

  std::filesystem::path path_;
  std::fstream file_;
  std::vector<NodeInfo> nodes_;
  std::uint64_t runs_ = 0;  // each of kInMemory nodes
};

}  // namespace vault
