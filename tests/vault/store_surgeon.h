// Changes bytes inside a store and makes its checksums right again, so that damage gets past them.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <span>
#include <unordered_set>
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
  // Takes any bytes, and finds in them what parts it can: nothing when they do not even have room for a header.
  explicit StoreSurgeon(std::vector<std::uint8_t> bytes);

  std::vector<std::uint8_t>& bytes() { return bytes_; }
  const std::vector<std::uint8_t>& bytes() const { return bytes_; }
  const std::uint8_t* bytes_at(std::uint64_t offset) const { return bytes_.data() + offset; }
  const vault::Layout& layout() const { return *layout_; }
  vault::Encoding encoding() const { return static_cast<vault::Encoding>(bytes_[layout_->encoding_at] % 3); }
  // Tree pages and blocks, in the order of the trees.
  const std::vector<Part>& parts() const { return parts_; }
  // The page that the header names as root of the node tree, or of the block tree.
  std::uint64_t node_root() const;
  std::uint64_t block_root() const;
  // Bytes that the part takes in the file, its trailer included.
  std::size_t WholeSize(const Part& part) const;

  // The part's plain bytes.
  std::vector<std::uint8_t> Plain(const Part& part) const;
  // Hands the part's plain bytes to `change` and stores them again with a right checksum.
  void Change(const Part& part, const std::function<void(std::span<std::uint8_t>)>& change);
  // Makes the part's checksum right.
  void Seal(const Part& part);
  // Makes the header's checksums right.
  void SealHeader();
  void Save(const std::filesystem::path& path) const;

 private:
  void CollectParts();
  void CollectPages(std::uint64_t offset, std::uint8_t type);
  bool Holds(std::uint64_t offset, std::size_t size) const {
    return offset <= bytes_.size() && bytes_.size() - offset >= size;
  }

  std::vector<std::uint8_t> bytes_;
  const vault::Layout* layout_ = nullptr;
  std::vector<Part> parts_;
  std::unordered_set<std::uint64_t> seen_;
};

}  // namespace test
