// The lowest layers of a store: header, node and block trees, blocks, subnode trees ([MS-PST] 2.2).
#pragma once

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <optional>
#include <span>
#include <vector>

#include "vault/encoding.h"
#include "vault/error.h"
#include "vault/layout.h"
#include "vault/mapped_file.h"
#include "vault/node.h"
#include "vault/types.h"

namespace vault {

// A block as stored: checked, still encoded.
struct StoredBlock {
  Bid bid = 0;
  std::uint64_t offset = 0;
  std::span<const std::uint8_t> bytes;
  bool internal() const { return bid & kInternalBlock; }
};

// One page of a node or block tree.
struct TreePage {
  const std::uint8_t* entries;
  std::uint64_t offset;
  unsigned count, entry_size, level;
};

// Immutable but for the note which pages and blocks have passed their checksum; any thread may use it.
class Database : public std::enable_shared_from_this<Database> {
 public:
  // Maps the file and checks the header. Throws Error.
  static std::shared_ptr<const Database> Open(const std::filesystem::path& path);
  // The same for a file's bytes in memory, which outlive the result and everything that comes from it.
  static std::shared_ptr<const Database> OpenBytes(std::span<const std::uint8_t> bytes);

  const Layout& layout() const { return *layout_; }
  Encoding encoding() const { return encoding_; }
  std::uint64_t file_size() const { return file_.size(); }

  // Logarithmic look-ups; nullopt when there is no such entry. Throw Error for a damaged page.
  std::optional<NodeInfo> FindNode(Nid nid) const;
  // The block, after its bounds, trailer and checksum are checked. Throws Error (also when there is none); `nid` is
  // the node that is being read.
  StoredBlock FindBlock(Bid bid, Nid nid) const;

  // Subnode `nid` in the tree of subnodes `tree` (0: empty). Logarithmic. Throws Error for a damaged block.
  std::optional<NodeInfo> FindSubnode(Bid tree, Nid nid) const;
  // All entries of the tree, ascending; damaged parts are left out.
  std::vector<NodeInfo> ListSubnodes(Bid tree) const;

  // A page of the node or block tree, checked. Throws Error.
  TreePage ReadTreePage(std::uint64_t offset, Bid bid, std::uint8_t type) const;
  struct Root {
    std::uint64_t offset = 0;
    Bid bid = 0;
  };
  Root node_root() const { return node_root_; }
  NodeInfo ParseNode(const std::uint8_t* entry) const;

 private:
  Database(std::optional<MappedFile> map, std::span<const std::uint8_t> bytes);
  void ReadHeader();
  // The leaf entry of `key`, or null.
  const std::uint8_t* FindEntry(Root root, std::uint8_t type, std::uint64_t key) const;
  struct SubnodeBlock {
    const std::uint8_t* entries;
    unsigned count, entry_size, level;
  };
  SubnodeBlock ReadSubnodeBlock(Bid bid, Nid nid) const;
  NodeInfo ParseSubnode(const std::uint8_t* entry) const;

  // Which 64-byte units begin a page or block whose checksum was right: one bit each, so 1/512 of the file at most,
  // and no memory is touched for parts of the file that are not read.
  class Verified {
   public:
    explicit Verified(std::uint64_t file_size);
    bool Test(std::uint64_t offset) const;
    void Set(std::uint64_t offset) const;

   private:
    struct Free {
      void operator()(std::uint32_t* words) const { std::free(words); }
    };
    std::unique_ptr<std::uint32_t[], Free> words_;
  };

  const std::optional<MappedFile> map_;
  std::span<const std::uint8_t> file_;
  Verified verified_;
  const Layout* layout_ = nullptr;
  Encoding encoding_ = Encoding::kNone;
  Root node_root_, block_root_;
};

}  // namespace vault
