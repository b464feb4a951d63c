// Blocks and nodes of a Unicode store being written ([MS-PST] 2.2.2.8).
#pragma once

#include <array>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <span>
#include <vector>

#include "vault/area_writer.h"
#include "vault/encoding.h"
#include "vault/layout.h"
#include "vault/node.h"
#include "vault/source.h"
#include "vault/tree_writer.h"

namespace vault {

// Blocks go out where they come to lie, one behind the other, and their entries into the pages of the block tree; only
// nodes have to be sorted. Throws Error (kCannotOpen for the file, kUnwritable for what does not fit the format).
class FileWriter {
 public:
  // Largest value: its size is kept in 32 bits.
  static constexpr std::uint64_t kMaxValue = 0xFFFFFFFF;

  FileWriter(const std::filesystem::path& path, Encoding encoding);

  // Data of a node in as many blocks as it takes; 0 for no data.
  Bid AddData(std::span<const std::uint8_t> data);
  Bid AddData(const Source& source);
  // A block of data, at most kUnicodeLayout.block_data bytes.
  Bid AddBlock(std::span<const std::uint8_t> data) { return AddBlock(data, false); }
  // A tree of subnodes; sorts them. 0 for none.
  Bid AddSubnodes(std::vector<NodeInfo> subnodes);
  // Most subnodes of one node.
  static std::size_t max_subnodes();
  void AddNode(const NodeInfo& node);

  // Writes what is left; `next_index` is the next free index of each node type.
  void Finish(const std::array<std::uint32_t, 32>& next_index);

  // Whether the file could not be written: nothing more can be.
  bool failed() const { return space_.failed(); }

  // Blocks and nodes that are all added, or none of them: the destructor drops what was not committed. Their space and
  // ids stay unused. Takes 24 bytes of memory for each block meanwhile. One at a time.
  class Transaction {
   public:
    explicit Transaction(FileWriter& file) : file_(file) { file_.in_transaction_ = true; }
    ~Transaction();
    Transaction(const Transaction&) = delete;
    Transaction& operator=(const Transaction&) = delete;
    // Ends it; what is added afterwards stands for itself.
    void Commit();

   private:
    void End();
    FileWriter& file_;
  };

 private:
  friend class BlockListWriter;
  using BlockEntry = std::array<std::uint8_t, kUnicodeLayout.block_entry>;

  Bid AddBlock(std::span<const std::uint8_t> data, bool internal);
  // A list of blocks (level 1) or of lists (2).
  Bid AddList(std::span<const Bid> bids, unsigned level, std::uint64_t total);

  Encoding encoding_;
  AreaWriter space_;
  Bid next_block_ = 4, next_page_ = 4;
  TreeWriter blocks_;
  NodeSorter nodes_;
  bool in_transaction_ = false;
  std::vector<BlockEntry> pending_blocks_;
  std::vector<NodeInfo> pending_nodes_;
};

// Strings blocks together to the data of a node. Lists are written as they fill: memory is one list.
class BlockListWriter {
 public:
  explicit BlockListWriter(FileWriter& file) : file_(file) {}
  // The next block with the bytes of data in it. Throws Error(kUnwritable) when the data gets too large.
  void Add(Bid bid, std::size_t size);
  // What a node refers to; 0 for no blocks.
  Bid Finish();

 private:
  void CloseList();

  FileWriter& file_;
  std::vector<Bid> bids_, lists_;
  std::uint64_t listed_ = 0, total_ = 0;  // bytes
};

}  // namespace vault
