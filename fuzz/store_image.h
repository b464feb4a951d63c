// The smallest store around arbitrary pages or blocks: everything that surrounds them is right, so that a fuzzer's
// bytes reach the parser that they are meant for. Also the form in which such bytes are kept in a corpus.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <span>
#include <vector>

#include "vault/database.h"
#include "vault/encoding.h"
#include "vault/layout.h"
#include "vault/node.h"

namespace fuzz {

using Bytes = std::vector<std::uint8_t>;
using View = std::span<const std::uint8_t>;

// A node with its blocks as decoded bytes. As a corpus file: flags (bit 0: ANSI, bits 1-2: encoding), data and subnode
// block ids (4 bytes each), then for each block its id (4), its size (2) and its bytes; little-endian.
struct BlockCase {
  static constexpr std::size_t kMaxBlocks = 256;

  bool ansi = false;
  vault::Encoding encoding = vault::Encoding::kNone;
  vault::Bid data = 0, subnodes = 0;
  std::map<vault::Bid, Bytes> blocks;

  // Takes any bytes: sizes that the format cannot hold are cut.
  static BlockCase Parse(View file);
  Bytes Serialize() const;
  // The store with one node of this id.
  Bytes MakeStore(vault::Nid nid) const;
};

// Pages of a node tree and of a block tree, the first of each being its root. As a corpus file: flags (bit 0: ANSI),
// the number of node pages (1), then the bytes of every page before its trailer.
struct PageCase {
  static constexpr std::size_t kMaxPages = 16;

  bool ansi = false;
  std::vector<Bytes> node_pages, block_pages;

  static PageCase Parse(View file);
  Bytes Serialize() const;
  Bytes MakeStore() const;
  // Where the i-th page of the store lies and which id it has, node pages first.
  static std::uint64_t OffsetOf(std::size_t page);
  static vault::Bid BidOf(std::size_t page) { return 0x1000 + 4 * page; }
};

}  // namespace fuzz
