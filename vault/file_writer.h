// The lowest layers of a Unicode store being written: space, blocks, trees, maps, header ([MS-PST] 2.2).
#pragma once

#include <array>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <span>
#include <vector>

#include "vault/encoding.h"
#include "vault/layout.h"
#include "vault/node.h"

namespace vault {

// Blocks are written where they come to lie, one behind the other; trees, maps and header at the end.
// Throws Error (kCannotOpen for the file, kUnwritable for what does not fit the format).
class FileWriter {
 public:
  FileWriter(const std::filesystem::path& path, Encoding encoding);

  // Data of a node in as many blocks as it takes; 0 for no data.
  Bid AddData(std::span<const std::uint8_t> data);
  // The same with the blocks given: all but the last are kUnicodeLayout.block_data bytes or belong to a heap.
  Bid AddBlocks(const std::vector<std::vector<std::uint8_t>>& blocks);
  // A tree of subnodes; sorts them. 0 for none.
  Bid AddSubnodes(std::vector<NodeInfo> subnodes);
  void AddNode(const NodeInfo& node) { nodes_.push_back(node); }

  // Writes what is left; `next_index` is the next free index of each node type.
  void Finish(const std::array<std::uint32_t, 32>& next_index);

 private:
  struct Placed {
    Bid bid;
    std::uint64_t offset;
    std::uint16_t size;
  };
  struct Branch {
    std::uint64_t key;
    Bid bid;
    std::uint64_t offset;
  };

  Bid AddBlock(std::span<const std::uint8_t> data, bool internal);
  // A list of blocks, or of lists.
  Bid AddList(const std::vector<Bid>& bids, unsigned level, std::uint64_t total);
  std::uint64_t Allocate(std::uint64_t size, std::uint64_t alignment);
  void OpenArea();
  void Put(std::uint64_t offset, std::span<const std::uint8_t> bytes);
  void PutPage(std::uint64_t offset, std::uint8_t type, Bid bid, std::array<std::uint8_t, kPageSize>& page);
  Branch AddTreePage(std::uint8_t type, unsigned level, unsigned entry_size, std::span<const std::uint8_t> entries);
  // Builds a tree bottom-up from its packed leaf entries.
  Branch AddTree(std::uint8_t type, unsigned entry_size, const std::vector<std::uint8_t>& entries);

  std::ofstream file_;
  Encoding encoding_;
  std::vector<std::array<std::uint8_t, 496>> maps_;  // one allocation map for each area
  std::uint64_t used_in_area_ = 0;                   // bytes, from the area's start
  std::uint64_t next_block_ = 1, next_page_ = 1;
  std::vector<Placed> blocks_;
  std::vector<NodeInfo> nodes_;
};

}  // namespace vault
