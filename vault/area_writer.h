// The space of a store being written: areas of 248 KB, each with its allocation map ([MS-PST] 2.2.2.7, 2.6.1).
#pragma once

#include <array>
#include <cstdint>
#include <filesystem>
#include <span>
#include <vector>

#include "vault/layout.h"
#include "vault/output_file.h"

namespace vault {

// Gives out space from the beginning of the file to its end. One area lies in memory and goes to the file in one piece
// when it is full, map and all. Throws Error(kCannotOpen).
class AreaWriter {
 public:
  explicit AreaWriter(const std::filesystem::path& path);

  struct Room {
    std::uint64_t offset;  // in the file
    std::uint8_t* bytes;   // zeros; valid until the next room is asked for
  };
  // Room for a block of at most 8 KB that begins at a multiple of kBlockAlignment.
  Room AddBlock(std::size_t size);
  // Room for a page, kPageSize bytes on a page boundary.
  Room AddPage();

  struct Root {
    Bid bid;
    std::uint64_t offset;
  };
  // What the header says besides the space.
  struct Header {
    std::uint8_t encoding;
    Root node_tree, block_tree;
    Bid next_block, next_page;
    std::array<std::uint32_t, 32> next_index;  // free, by node type
  };
  // Writes the last area, then the header, and gives the file its name.
  void Finish(const Header& header);

  bool failed() const { return file_.failed(); }
  const std::filesystem::path& temporary_name() const { return file_.temporary_name(); }

 private:
  void OpenArea();
  void CloseArea();
  Room Take(std::uint64_t begin, std::uint64_t size);

  OutputFile file_;
  std::vector<std::uint8_t> area_;
  std::uint64_t areas_ = 0;                      // opened
  std::uint64_t used_ = 0;                       // bytes of the open area, from its start
  std::uint64_t next_page_ = 0, pages_end_ = 0;  // room in the open area that is kept for pages
  std::uint64_t free_units_ = 0;                 // of closed areas
};

// Fills in the trailer of a page at `offset` ([MS-PST] 2.2.2.7.1).
void SealPage(std::uint8_t* page, std::uint8_t type, std::uint64_t offset, Bid bid);

}  // namespace vault
