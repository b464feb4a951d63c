// The numbers in which the Unicode (64-bit) and ANSI (32-bit) layouts differ ([MS-PST] 2.2.2).
#pragma once

#include <cstdint>

#include "vault/bytes.h"
#include "vault/types.h"

namespace vault {

inline constexpr unsigned kPageSize = 512;
inline constexpr unsigned kBlockAlignment = 64;
inline constexpr std::uint8_t kBlockTreePage = 0x80, kNodeTreePage = 0x81;
inline constexpr Bid kInternalBlock = 2;  // bit of a block id
constexpr Bid PlainBid(Bid bid) {
  return bid & ~Bid{1};
}

struct Layout {
  unsigned word;  // bytes of block ids and file offsets
  unsigned header_size;
  unsigned root_at;      // tree roots: block id and offset of the node tree, then of the block tree
  unsigned encoding_at;  // bCryptMethod
  unsigned page_data;    // bytes before the page trailer
  unsigned page_crc_at, page_bid_at;
  unsigned entry_count_at;  // cEnt, cEntMax, cbEnt, cLevel of a tree page; entries end here
  unsigned node_entry, block_entry, branch_entry;
  unsigned block_data;  // largest data of a block
  unsigned block_trailer;
  unsigned block_crc_at, block_bid_at;  // in the trailer
  unsigned subnode_header;              // before the entries of a subnode block
  unsigned subnode_entry, subnode_branch;
  unsigned row_number;  // bytes of a row number in a table's index

  // A block id or file offset.
  std::uint64_t Word(const std::uint8_t* from) const { return word == 8 ? Load64(from) : Load32(from); }
  // Block ids in a full list of blocks, behind its 8-byte header.
  unsigned max_list_entries() const { return (block_data - 8) / word; }
  std::uint64_t block_size(std::uint64_t data) const {
    return (data + block_trailer + kBlockAlignment - 1) / kBlockAlignment * kBlockAlignment;
  }
};

inline constexpr Layout kUnicodeLayout = {.word = 8,
                                          .header_size = 564,
                                          .root_at = 216,
                                          .encoding_at = 513,
                                          .page_data = 496,
                                          .page_crc_at = 500,
                                          .page_bid_at = 504,
                                          .entry_count_at = 488,
                                          .node_entry = 32,
                                          .block_entry = 24,
                                          .branch_entry = 24,
                                          .block_data = 8176,
                                          .block_trailer = 16,
                                          .block_crc_at = 4,
                                          .block_bid_at = 8,
                                          .subnode_header = 8,
                                          .subnode_entry = 24,
                                          .subnode_branch = 16,
                                          .row_number = 4};
inline constexpr Layout kAnsiLayout = {.word = 4,
                                       .header_size = 512,
                                       .root_at = 184,
                                       .encoding_at = 461,
                                       .page_data = 500,
                                       .page_crc_at = 508,
                                       .page_bid_at = 504,
                                       .entry_count_at = 496,
                                       .node_entry = 16,
                                       .block_entry = 12,
                                       .branch_entry = 12,
                                       .block_data = 8180,
                                       .block_trailer = 12,
                                       .block_crc_at = 8,
                                       .block_bid_at = 4,
                                       .subnode_header = 4,
                                       .subnode_entry = 12,
                                       .subnode_branch = 8,
                                       .row_number = 2};

}  // namespace vault
