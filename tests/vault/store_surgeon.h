// Changes bytes inside a store and makes its checksums right again, so that damage gets past them.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <span>
#include <vector>

#include "vault/encoding.h"
#include "vault/layout.h"

namespace test {

class StoreSurgeon {
 public:
  struct Part {
    std::uint64_t offset;
    std::size_t size;  // bytes of data
    vault::Bid bid;
    bool is_page;
  };

  // Loads a good store. Throws std::runtime_error when it cannot be read.
  explicit StoreSurgeon(const std::filesystem::path& path);

  std::vector<std::uint8_t>& bytes() { return bytes_; }
  const std::uint8_t* bytes_at(std::uint64_t offset) const { return bytes_.data() + offset; }
  const vault::Layout& layout() const { return *layout_; }
  // Tree pages and blocks, in the order of the trees.
  const std::vector<Part>& parts() const { return parts_; }
  // The page that the header names as root of the node tree.
  std::uint64_t node_root() const;

  // Hands the part's plain bytes to `change` and stores them again with a right checksum.
  void Change(const Part& part, const std::function<void(std::span<std::uint8_t>)>& change);
  // Makes the header's checksums right.
  void SealHeader();
  void Save(const std::filesystem::path& path) const;

 private:
  void CollectPages(std::uint64_t offset, std::uint8_t type);

  std::vector<std::uint8_t> bytes_;
  const vault::Layout* layout_ = nullptr;
  std::vector<Part> parts_;
};

}  // namespace test
