// The one exception type of the store reader and writer.
#pragma once

#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>

namespace vault {

enum class ErrorCode {
  kCannotOpen,          // the file cannot be opened, mapped or written
  kNotAStore,           // no store signature, or too short to hold a header
  kHeaderChecksum,      // the header does not pass its checksum
  kUnsupportedVersion,  // a layout or encoding that this reader does not know
  kBadHeader,           // the header passes its checksum but contradicts itself or the file
  kBadPage,             // a page of the node or block tree
  kBadBlock,            // a data, index or subnode block
  kBadHeap,             // a heap, its page map, or a tree on it
  kBadProperty,         // one property value
  kBadTable,            // a table's description or one of its rows
  kNotFound,            // a node, subnode, property or item that is asked for is not there
  kLimit,               // more nesting than the reader's fixed bounds allow
  kUnwritable,          // the writer was given something that the format cannot hold
};

// Says what is wrong and where. what() is one readable sentence without a final line break that includes the place.
class Error : public std::runtime_error {
 public:
  // `sentence` names the fault; offset is a byte offset in the file, nid the node being read (0: none).
  Error(ErrorCode code, const std::string& sentence, std::optional<std::uint64_t> offset = std::nullopt,
        std::uint32_t nid = 0);

  ErrorCode code() const { return code_; }
  const std::optional<std::uint64_t>& offset() const { return offset_; }
  std::uint32_t nid() const { return nid_; }
  // The sentence without the place.
  const std::string& sentence() const { return sentence_; }

 private:
  ErrorCode code_;
  std::string sentence_;
  std::optional<std::uint64_t> offset_;
  std::uint32_t nid_;
};

}  // namespace vault
